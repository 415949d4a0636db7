#include "krwebmethods.hpp"

#include <krinterop/krjson.hpp>
#include <krplatform/krtext.hpp>

#include <algorithm>
#include <set>
#include <stdexcept>

namespace KR::web {

namespace {

// Names of the arguments; one without a usable name is called "arg" and its place.
std::vector<std::string> getArgumentNames(const KRMethodDescription& method) {
    std::vector<std::string> names;
    std::set<std::string> taken;
    for (const auto& parameter : method.parameters) {
        const bool isUsable = !parameter.name.empty() && !taken.contains(parameter.name);
        names.push_back(isUsable ? parameter.name : "arg" + std::to_string(names.size()));
        taken.insert(names.back());
    }
    return names;
}

Json describeType(KRArgumentType type, const std::string& description) {
    Json schema = Json::object();
    switch (type) {
    case KRArgumentType::Bool:
        schema["type"] = "boolean";
        break;
    case KRArgumentType::Int:
        schema["type"] = "integer";
        break;
    case KRArgumentType::Float:
        schema["type"] = "number";
        break;
    case KRArgumentType::String:
        schema["type"] = "string";
        break;
    case KRArgumentType::Binary:
        schema = {{"type", "object"}, {"properties", {{"base64", {{"type", "string"}}}}}};
        break;
    case KRArgumentType::Array:
        schema["type"] = "array";
        break;
    case KRArgumentType::Void:
        schema["type"] = "null";
        break;
    case KRArgumentType::Value:
        break;
    }
    if (!description.empty()) {
        schema["description"] = description;
    }
    return schema;
}

Json describeArguments(const KRMethodDescription& method) {
    Json properties = Json::object();
    const std::vector<std::string> names = getArgumentNames(method);
    for (std::size_t i = 0; i < names.size(); ++i) {
        properties[names[i]] =
            describeType(i < method.argumentTypes.size() ? method.argumentTypes[i] : KRArgumentType::Value,
                         method.parameters[i].description);
    }
    return {{"type", "object"},
            {"description", method.description},
            {"properties", properties},
            {"required", names},
            {"additionalProperties", false}};
}

// One schema, or any of several.
Json combine(std::vector<Json> schemas) {
    return schemas.size() == 1 ? std::move(schemas.front()) : Json{{"anyOf", schemas}};
}

KRValue readArgument(const Json& json, KRArgumentType type) {
    if (type == KRArgumentType::Float && json.is_number()) {
        return KRValue(json.get<float>()); // JavaScript writes 1.0 as 1
    }
    return toValue(json);
}

} // namespace

Json makeRequestSchema(const std::vector<KRMethodDescription>& methods, const std::string& method) {
    std::vector<Json> schemas;
    for (const KRMethodDescription& each : methods) {
        if (each.name == method) {
            schemas.push_back(describeArguments(each));
        }
    }
    return combine(std::move(schemas));
}

Json makeResponseSchema(const std::vector<KRMethodDescription>& methods, const std::string& method) {
    std::vector<Json> schemas;
    for (const KRMethodDescription& each : methods) {
        if (each.name == method) {
            Json schema = {
                {"type", "object"},
                {"properties", {{"value", describeType(each.resultType, each.result.description)}}}};
            if (std::ranges::find(schemas, schema) == schemas.end()) {
                schemas.push_back(std::move(schema));
            }
        }
    }
    return combine(std::move(schemas));
}

MethodCall readRequest(const std::vector<KRMethodDescription>& methods, const std::string& method,
                       std::string_view request) {
    const Json json = request.empty() ? Json::object() : Json::parse(request, nullptr, false);
    if (json.is_discarded() || !json.is_object()) {
        throw std::invalid_argument("the request is not a JSON object with the names of the arguments");
    }
    std::string known;
    for (const KRMethodDescription& each : methods) {
        if (each.name != method) {
            continue;
        }
        const std::vector<std::string> names = getArgumentNames(each);
        if (names.size() != json.size() ||
            !std::ranges::all_of(names, [&](const std::string& name) { return json.contains(name); })) {
            known += (known.empty() ? "" : ", ") + each.getSignature();
            continue;
        }
        MethodCall call{&each, {}};
        for (std::size_t i = 0; i < names.size(); ++i) {
            const KRArgumentType type =
                i < each.argumentTypes.size() ? each.argumentTypes[i] : KRArgumentType::Value;
            try {
                call.arguments.push_back(readArgument(json[names[i]], type));
            } catch (const std::invalid_argument& error) {
                throw std::invalid_argument("argument " + names[i] + ": " + error.what());
            }
        }
        return call;
    }
    std::string given;
    for (const auto& [name, value] : json.items()) {
        given += (given.empty() ? "" : ", ") + escapeText(name, 60);
    }
    throw std::invalid_argument(method + " cannot be called with the arguments {" + given +
                                "}; there is: " + known);
}

} // namespace KR::web
