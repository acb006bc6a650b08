// The library's own templates: the files of security/hosting/templates, which the build turns into
// texts.
#pragma once

#include <string_view>

namespace HostingSecurity {

struct BuiltInTemplate {
    const wchar_t* file; // name
    std::string_view xml;
};

extern const BuiltInTemplate domainTemplate;
extern const BuiltInTemplate webuserTemplate;
extern const BuiltInTemplate forwardingTemplate;

} // namespace HostingSecurity
