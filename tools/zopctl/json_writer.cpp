#include "tools/zopctl/json_writer.h"

#include "runtime/text.h"

#include <nlohmann/json.hpp>

namespace zopctl {

namespace {

using Json = nlohmann::ordered_json;

Json convert(const JsonValue& value) {
    struct Visitor {
        Json operator()(std::nullptr_t) const { return nullptr; }
        Json operator()(bool flag) const { return flag; }
        Json operator()(std::int64_t number) const { return number; }
        Json operator()(const std::wstring& text) const { return toUtf8(text); }
        Json operator()(const JsonFields& fields) const {
            Json object = Json::object();
            for (const auto& [name, field] : fields) {
                object[name] = convert(field);
            }
            return object;
        }
        Json operator()(const JsonList& list) const {
            Json array = Json::array();
            for (const JsonValue& item : list) {
                array.push_back(convert(item));
            }
            return array;
        }
    };
    return std::visit(Visitor{}, value.value);
}

} // namespace

JsonValue::JsonValue(const wchar_t* text) : value(std::wstring(text)) {}

std::wstring jsonLine(const wchar_t* event, const JsonFields& fields) {
    Json object = Json::object();
    object["event"] = toUtf8(event);
    for (const auto& [name, field] : fields) {
        object[name] = convert(field);
    }
    return toWide(object.dump());
}

} // namespace zopctl
