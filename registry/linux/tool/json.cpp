#include "json.h"

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

void putValue(Json& json, const obreg::Value& value)
{
    const Meaning meaning = meaningOf(value);
    bool exact = valueMeaning(value.type, meaning) == value && isUtf8(value.data);
    json["type"] = typeName(value.type);
    if (const auto* pText = std::get_if<std::string>(&meaning))
        json["data"] = repairedUtf8(*pText);
    else if (const auto* pNumber = std::get_if<uint64_t>(&meaning)) {
        json["data"] = *pNumber;
        exact = true;
    } else if (const auto* pList = std::get_if<obreg::StringList>(&meaning)) {
        json["data"] = Json::array();
        for (const std::string& one : *pList)
            json["data"].push_back(repairedUtf8(one));
    } else {
        json["data"] = nullptr;
        exact = false;
    }
    if (!exact)
        json["hex"] = hexOf(value.data);
}

} // namespace

std::string jsonOf(const Fact& fact)
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
    return json.dump();
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
    json["exit"] = static_cast<int>(failure.exit);
    return json.dump();
}

} // namespace obregtool
