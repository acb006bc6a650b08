#include "api/flat/flat_support.h"

#include "api/zop_database_exception.h"
#include "runtime/exception.h"
#include "runtime/text.h"

#include <memory>

namespace zopobsolete::flat {

namespace {

// For a failure that there is no memory to describe; never freed.
zop_error& undescribed() {
    static zop_error error{ZOP_ERROR_GENERAL, L"Unexpected error"};
    return error;
}

zop_error* describeCurrent() {
    try {
        throw;
    } catch (const ArgumentNullException& e) {
        return handle<zop_error>(ZOP_ERROR_NULL_ARGUMENT, e.get_ParamName());
    } catch (const ZOPDatabaseException& e) {
        return handle<zop_error>(ZOP_ERROR_DATABASE, e.message());
    } catch (const Exception& e) {
        return handle<zop_error>(ZOP_ERROR_GENERAL, e.message());
    } catch (const vexception& e) {
        return handle<zop_error>(ZOP_ERROR_GENERAL, e.what());
    } catch (const std::exception& e) {
        return handle<zop_error>(ZOP_ERROR_GENERAL, toWide(e.what()));
    } catch (...) {
        return &undescribed();
    }
}

} // namespace

void describe(zop_error** error) noexcept {
    if (error == nullptr) {
        return;
    }
    try {
        *error = describeCurrent();
    } catch (...) { // there is no memory for the text
        *error = &undescribed();
    }
}

} // namespace zopobsolete::flat

using namespace zopobsolete::flat;

std::uint32_t ZOP_CALL zop_interface_version() {
    return ZOP_INTERFACE_VERSION;
}

std::int32_t ZOP_CALL zop_error_kind(const zop_error* error) {
    return error != nullptr ? error->kind : 0;
}

const wchar_t* ZOP_CALL zop_error_text(const zop_error* error) {
    return error != nullptr ? error->text.c_str() : L"";
}

void ZOP_CALL zop_error_free(zop_error* error) {
    if (error != &undescribed()) {
        destroy(error);
    }
}

const wchar_t* ZOP_CALL zop_text_data(const zop_text* text) {
    return text != nullptr ? text->value.c_str() : L"";
}

std::size_t ZOP_CALL zop_text_length(const zop_text* text) {
    return text != nullptr ? text->value.size() : 0;
}

void ZOP_CALL zop_text_free(zop_text* text) {
    destroy(text);
}

std::size_t ZOP_CALL zop_list_count(const zop_list* list) {
    return list != nullptr ? list->values.size() : 0;
}

const wchar_t* ZOP_CALL zop_list_at(const zop_list* list, std::size_t index) {
    return index < zop_list_count(list) ? list->values[index].c_str() : nullptr;
}

void ZOP_CALL zop_list_free(zop_list* list) {
    destroy(list);
}

void ZOP_CALL zop_call_fail(zop_call* call, const wchar_t* text) {
    if (call == nullptr) {
        return;
    }
    try {
        call->failure = text != nullptr ? text : L"";
    } catch (const std::bad_alloc&) {
        call->failure.emplace(); // fails all the same, without its text
    }
}
