// JSON text of the value tree, through nlohmann/json.
#include <climits>
#include <cmath>
#include <nlohmann/json.hpp>

#include "zu_data_manager/values.h"

namespace base {

namespace {

nlohmann::json ToJson(const Value& value) {
  switch (value.GetType()) {
    case Value::TYPE_BOOLEAN: {
      bool b = false;
      value.GetAsBoolean(&b);
      return b;
    }
    case Value::TYPE_INTEGER: {
      int i = 0;
      value.GetAsInteger(&i);
      return i;
    }
    case Value::TYPE_DOUBLE: {
      double d = 0;
      value.GetAsDouble(&d);
      return std::isfinite(d) ? nlohmann::json(d) : nlohmann::json(nullptr);
    }
    case Value::TYPE_STRING: {
      std::string s;
      value.GetAsString(&s);
      return s;
    }
    case Value::TYPE_LIST: {
      const auto& list = static_cast<const ListValue&>(value);
      nlohmann::json array = nlohmann::json::array();
      for (size_t i = 0; i < list.GetSize(); ++i) {
        Value* item = nullptr;
        list.Get(i, &item);
        array.push_back(ToJson(*item));
      }
      return array;
    }
    case Value::TYPE_DICTIONARY: {
      const auto& dict = static_cast<const DictionaryValue&>(value);
      nlohmann::json object = nlohmann::json::object();
      for (const std::string& key : dict.Keys()) {
        Value* item = nullptr;
        dict.Get(key, &item);
        object[key] = ToJson(*item);
      }
      return object;
    }
    case Value::TYPE_NULL:
      break;
  }
  return nullptr;
}

// Descriptions are shallow; a deeper document is refused instead of recursing without bound.
constexpr int kMaxDepth = 200;

Value* FromJson(const nlohmann::json& json, int depth) {
  if (depth > kMaxDepth) return nullptr;
  switch (json.type()) {
    case nlohmann::json::value_t::boolean:
      return Value::CreateBooleanValue(json.get<bool>());
    case nlohmann::json::value_t::number_integer:
    case nlohmann::json::value_t::number_unsigned: {
      if (json.is_number_unsigned()) {
        auto u = json.get<uint64_t>();
        if (u <= static_cast<uint64_t>(INT_MAX))
          return Value::CreateIntegerValue(static_cast<int>(u));
        return Value::CreateDoubleValue(static_cast<double>(u));
      }
      auto i = json.get<int64_t>();
      if (i >= INT_MIN && i <= INT_MAX) return Value::CreateIntegerValue(static_cast<int>(i));
      return Value::CreateDoubleValue(static_cast<double>(i));
    }
    case nlohmann::json::value_t::number_float:
      return Value::CreateDoubleValue(json.get<double>());
    case nlohmann::json::value_t::string:
      return Value::CreateStringValue(json.get<std::string>());
    case nlohmann::json::value_t::array: {
      auto* list = new ListValue();
      for (const auto& item : json) {
        Value* child = FromJson(item, depth + 1);
        if (child == nullptr) {
          delete list;
          return nullptr;
        }
        list->Append(child);
      }
      return list;
    }
    case nlohmann::json::value_t::object: {
      auto* dict = new DictionaryValue();
      for (auto it = json.begin(); it != json.end(); ++it) {
        Value* child = FromJson(it.value(), depth + 1);
        if (child == nullptr) {
          delete dict;
          return nullptr;
        }
        dict->Set(it.key(), child);
      }
      return dict;
    }
    default:
      return Value::CreateNullValue();
  }
}

}  // namespace

std::string WriteJson(const Value& value, bool pretty) {
  // Invalid UTF-8 in a string is replaced rather than aborting the whole dump.
  return ToJson(value).dump(pretty ? 2 : -1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::unique_ptr<Value> ReadJson(const std::string& text, std::string* error) {
  nlohmann::json json = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
  if (json.is_discarded()) {
    if (error != nullptr) *error = "malformed JSON text";
    return nullptr;
  }
  std::unique_ptr<Value> value(FromJson(json, 0));
  if (value == nullptr && error != nullptr) *error = "JSON text nested too deeply";
  return value;
}

std::unique_ptr<DictionaryValue> ReadJsonDictionary(const std::string& text, std::string* error) {
  std::unique_ptr<Value> value = ReadJson(text, error);
  if (value == nullptr) return nullptr;
  if (!value->IsType(Value::TYPE_DICTIONARY)) {
    if (error != nullptr) *error = "JSON text is not an object";
    return nullptr;
  }
  return std::unique_ptr<DictionaryValue>(static_cast<DictionaryValue*>(value.release()));
}

}  // namespace base
