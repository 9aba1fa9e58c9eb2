#include "zu_data_manager/values.h"

#include "src/base/utf8.h"

namespace base {

namespace {

class FundamentalValue : public Value {
 public:
  explicit FundamentalValue(bool value) : Value(TYPE_BOOLEAN), bool_(value) {}
  explicit FundamentalValue(int value) : Value(TYPE_INTEGER), int_(value) {}
  explicit FundamentalValue(double value) : Value(TYPE_DOUBLE), double_(value) {}

  bool GetAsBoolean(bool* out) const override {
    if (!IsType(TYPE_BOOLEAN)) return false;
    if (out != nullptr) *out = bool_;
    return true;
  }
  bool GetAsInteger(int* out) const override {
    if (!IsType(TYPE_INTEGER)) return false;
    if (out != nullptr) *out = int_;
    return true;
  }
  bool GetAsDouble(double* out) const override {
    if (IsType(TYPE_DOUBLE)) {
      if (out != nullptr) *out = double_;
      return true;
    }
    if (IsType(TYPE_INTEGER)) {
      if (out != nullptr) *out = int_;
      return true;
    }
    return false;
  }
  Value* DeepCopy() const override {
    switch (GetType()) {
      case TYPE_BOOLEAN:
        return new FundamentalValue(bool_);
      case TYPE_INTEGER:
        return new FundamentalValue(int_);
      default:
        return new FundamentalValue(double_);
    }
  }
  bool Equals(const Value* other) const override {
    if (other == nullptr || other->GetType() != GetType()) return false;
    const auto* o = static_cast<const FundamentalValue*>(other);
    switch (GetType()) {
      case TYPE_BOOLEAN:
        return bool_ == o->bool_;
      case TYPE_INTEGER:
        return int_ == o->int_;
      default:
        return double_ == o->double_;
    }
  }

 private:
  bool bool_ = false;  // valid when TYPE_BOOLEAN
  int int_ = 0;        // valid when TYPE_INTEGER
  double double_ = 0;  // valid when TYPE_DOUBLE
};

class StringValue : public Value {
 public:
  explicit StringValue(std::string utf8) : Value(TYPE_STRING), value_(std::move(utf8)) {}
  bool GetAsString(std::string* out) const override {
    if (out != nullptr) *out = value_;
    return true;
  }
  bool GetAsString(std::wstring* out) const override {
    if (out != nullptr) *out = zu::Utf8ToWide(value_);
    return true;
  }
  Value* DeepCopy() const override { return new StringValue(value_); }
  bool Equals(const Value* other) const override {
    std::string text;
    return other != nullptr && other->GetAsString(&text) && text == value_;
  }

 private:
  std::string value_;  // UTF-8
};

class NullValue : public Value {
 public:
  NullValue() : Value(TYPE_NULL) {}
  Value* DeepCopy() const override { return new NullValue(); }
  bool Equals(const Value* other) const override {
    return other != nullptr && other->IsType(TYPE_NULL);
  }
};

}  // namespace

Value* Value::CreateNullValue() { return new NullValue(); }
Value* Value::CreateBooleanValue(bool value) { return new FundamentalValue(value); }
Value* Value::CreateIntegerValue(int value) { return new FundamentalValue(value); }
Value* Value::CreateDoubleValue(double value) { return new FundamentalValue(value); }
Value* Value::CreateStringValue(const std::string& utf8) { return new StringValue(utf8); }
Value* Value::CreateStringValue(const std::wstring& wide) {
  return new StringValue(zu::WideToUtf8(wide));
}

Value::~Value() = default;
bool Value::GetAsBoolean(bool*) const { return false; }
bool Value::GetAsInteger(int*) const { return false; }
bool Value::GetAsDouble(double*) const { return false; }
bool Value::GetAsString(std::string*) const { return false; }
bool Value::GetAsString(std::wstring*) const { return false; }
Value* Value::DeepCopy() const { return new NullValue(); }
bool Value::Equals(const Value* other) const { return other == this; }

// --- DictionaryValue -------------------------------------------------------------------------

DictionaryValue::DictionaryValue() : Value(TYPE_DICTIONARY) {}
DictionaryValue::~DictionaryValue() = default;

bool DictionaryValue::HasKey(const std::string& key) const { return values_.count(key) != 0; }
void DictionaryValue::Clear() { values_.clear(); }

std::vector<std::string> DictionaryValue::Keys() const {
  std::vector<std::string> keys;
  for (const auto& entry : values_) keys.push_back(entry.first);
  return keys;
}

void DictionaryValue::Set(const std::string& key, Value* value) {
  if (value == nullptr) value = CreateNullValue();
  values_[key].reset(value);
}
void DictionaryValue::SetBoolean(const std::string& key, bool value) {
  Set(key, CreateBooleanValue(value));
}
void DictionaryValue::SetInteger(const std::string& key, int value) {
  Set(key, CreateIntegerValue(value));
}
void DictionaryValue::SetDouble(const std::string& key, double value) {
  Set(key, CreateDoubleValue(value));
}
void DictionaryValue::SetString(const std::string& key, const std::string& utf8) {
  Set(key, CreateStringValue(utf8));
}
void DictionaryValue::SetString(const std::string& key, const std::wstring& wide) {
  Set(key, CreateStringValue(wide));
}

bool DictionaryValue::Get(const std::string& key, Value** out) const {
  auto it = values_.find(key);
  if (it == values_.end()) return false;
  if (out != nullptr) *out = it->second.get();
  return true;
}

namespace {
template <typename Out>
bool GetAs(const Value* value, Out* out) {
  if (value == nullptr) return false;
  if constexpr (std::is_same_v<Out, bool>) return value->GetAsBoolean(out);
  if constexpr (std::is_same_v<Out, int>) return value->GetAsInteger(out);
  if constexpr (std::is_same_v<Out, double>) return value->GetAsDouble(out);
  if constexpr (std::is_same_v<Out, std::string> || std::is_same_v<Out, std::wstring>) {
    return value->GetAsString(out);
  }
}

template <typename Container, typename Out>
bool GetContainer(const Value* value, Value::Type type, Out** out) {
  if (value == nullptr || !value->IsType(type)) return false;
  if (out != nullptr) *out = static_cast<Out*>(const_cast<Value*>(value));
  return true;
}

const Value* Lookup(const DictionaryValue& dict, const std::string& key) {
  Value* value = nullptr;
  return dict.Get(key, &value) ? value : nullptr;
}
}  // namespace

bool DictionaryValue::GetBoolean(const std::string& key, bool* out) const {
  return GetAs(Lookup(*this, key), out);
}
bool DictionaryValue::GetInteger(const std::string& key, int* out) const {
  return GetAs(Lookup(*this, key), out);
}
bool DictionaryValue::GetDouble(const std::string& key, double* out) const {
  return GetAs(Lookup(*this, key), out);
}
bool DictionaryValue::GetString(const std::string& key, std::string* out) const {
  return GetAs(Lookup(*this, key), out);
}
bool DictionaryValue::GetString(const std::string& key, std::wstring* out) const {
  return GetAs(Lookup(*this, key), out);
}
bool DictionaryValue::GetList(const std::string& key, ListValue** out) const {
  return GetContainer<ListValue>(Lookup(*this, key), TYPE_LIST, out);
}
bool DictionaryValue::GetDictionary(const std::string& key, DictionaryValue** out) const {
  return GetContainer<DictionaryValue>(Lookup(*this, key), TYPE_DICTIONARY, out);
}

bool DictionaryValue::Remove(const std::string& key, Value** out) {
  auto it = values_.find(key);
  if (it == values_.end()) return false;
  if (out != nullptr) {
    *out = it->second.release();
  }
  values_.erase(it);
  return true;
}

DictionaryValue* DictionaryValue::DeepCopy() const {
  auto* copy = new DictionaryValue();
  for (const auto& entry : values_) copy->values_[entry.first].reset(entry.second->DeepCopy());
  return copy;
}

bool DictionaryValue::Equals(const Value* other) const {
  if (other == nullptr || !other->IsType(TYPE_DICTIONARY)) return false;
  const auto* o = static_cast<const DictionaryValue*>(other);
  if (o->values_.size() != values_.size()) return false;
  auto a = values_.begin();
  auto b = o->values_.begin();
  for (; a != values_.end(); ++a, ++b) {
    if (a->first != b->first || !a->second->Equals(b->second.get())) return false;
  }
  return true;
}

// --- ListValue -------------------------------------------------------------------------------

ListValue::ListValue() : Value(TYPE_LIST) {}
ListValue::~ListValue() = default;

void ListValue::Clear() { values_.clear(); }

void ListValue::Append(Value* value) {
  if (value == nullptr) value = CreateNullValue();
  values_.emplace_back(value);
}

bool ListValue::Get(size_t index, Value** out) const {
  if (index >= values_.size()) return false;
  if (out != nullptr) *out = values_[index].get();
  return true;
}

namespace {
const Value* At(const ListValue& list, size_t index) {
  Value* value = nullptr;
  return list.Get(index, &value) ? value : nullptr;
}
}  // namespace

bool ListValue::GetInteger(size_t index, int* out) const { return GetAs(At(*this, index), out); }
bool ListValue::GetString(size_t index, std::string* out) const {
  return GetAs(At(*this, index), out);
}
bool ListValue::GetString(size_t index, std::wstring* out) const {
  return GetAs(At(*this, index), out);
}
bool ListValue::GetDictionary(size_t index, DictionaryValue** out) const {
  return GetContainer<DictionaryValue>(At(*this, index), TYPE_DICTIONARY, out);
}
bool ListValue::GetList(size_t index, ListValue** out) const {
  return GetContainer<ListValue>(At(*this, index), TYPE_LIST, out);
}

ListValue* ListValue::DeepCopy() const {
  auto* copy = new ListValue();
  for (const auto& value : values_) copy->values_.emplace_back(value->DeepCopy());
  return copy;
}

bool ListValue::Equals(const Value* other) const {
  if (other == nullptr || !other->IsType(TYPE_LIST)) return false;
  const auto* o = static_cast<const ListValue*>(other);
  if (o->values_.size() != values_.size()) return false;
  for (size_t i = 0; i < values_.size(); ++i) {
    if (!values_[i]->Equals(o->values_[i].get())) return false;
  }
  return true;
}

}  // namespace base
