#include "json.h"

#include <ostream>

#include <nlohmann/json.hpp>

#include "text.h"
#include "valuetext.h"

namespace obregtool {

namespace {

using Json = nlohmann::ordered_json;

void putText(Json& json, const std::string& name, const std::string& text)
{
    json[name] = repairedUtf8(text);
    if (!isUtf8(text))
        json[name + "Hex"] = hexOf(text);
}

void putDetail(Json& json, const char* pName, const std::string& text) { putText(json, pName, text); }

template <class Data>
void putDetail(Json& json, const char* pName, const Data& data)
{
    json[pName] = data;
}

void putValue(Json& json, const obreg::Value& value)
{
    const Meaning meaning = meaningOf(value);
    json["type"] = typeName(value.type);
    json["data"] = nullptr;
    if (meaning.kind == Meaning::Number) {
        json["data"] = meaning.number;
        if (value.type == REG_QWORD)
            json["text"] = std::to_string(meaning.number);
    } else if (meaning.kind == Meaning::Bytes || !isUtf8(meaning.text)) {
        json["hex"] = hexOf(value.data);
    } else if (meaning.kind == Meaning::Text) {
        json["data"] = meaning.text;
    } else {
        Json& list = json["data"] = Json::array();
        forEachString(meaning.text, [&list](std::string_view one) { list.push_back(one); });
    }
}

} // namespace

void writeJson(std::ostream& stream, const Fact& fact)
{
    Json json;
    json["kind"] = fact.kind;
    for (const Field& field : fact.fields) {
        if (const auto* pText = std::get_if<std::string>(&field.data))
            putText(json, field.pName, *pText);
        else if (const auto* pValue = std::get_if<obreg::Value>(&field.data))
            putValue(std::string_view(field.pName) == "value" ? json : json[field.pName], *pValue);
        else if (const auto* pNumber = std::get_if<uint64_t>(&field.data))
            json[field.pName] = *pNumber;
        else
            json[field.pName] = std::get<double>(field.data);
    }
    stream << json;
}

std::string jsonOf(const Failure& failure)
{
    Json json;
    putText(json, "error", failure.what());
    if (!failure.key.empty())
        putText(json, "key", failure.key);
    if (const obreg::StatusText* const pText = obreg::statusText(failure.status); failure.status != 0) {
        json["status"] = pText != nullptr ? pText->name : "";
        json["code"] = upperCase(hexOfNumber(failure.status, 8)); // as the message writes it
    }
    if (!failure.advice.empty())
        putText(json, "advice", failure.advice);
    for (const Detail& detail : failure.details)
        std::visit([&](const auto& data) { putDetail(json, detail.pName, data); }, detail.data);
    json["exit"] = static_cast<int>(failure.exit);
    return json.dump();
}

} // namespace obregtool
