#pragma once

#include "api/exception.h"

#include <string>

// The text of the public exception that ends the call.
template <class Function>
std::string failureOf(Function&& function) {
    try {
        function();
    } catch (const zopobsolete::Exception& e) {
        return e.what();
    }
    return "no failure";
}
