// The value tree that describes file-backed storage: a dictionary of named values, lists of
// values, strings and integers, with JSON text in and out so a host can keep a description
// in a file and load it later.
//
// Ownership follows the classic raw-pointer style: Set() and Append() take ownership of the
// Value they are handed; Get*() hand out borrowed pointers that stay owned by the container.
// Strings are stored as UTF-8; the wide-string accessors convert.
// Thread-safety: not thread-safe: one thread per tree.
#ifndef ZU_DATA_MANAGER_VALUES_H_
#define ZU_DATA_MANAGER_VALUES_H_

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "zu_data_manager/export.h"

namespace base {

class DictionaryValue;
class ListValue;

class ZU_EXPORT Value {
 public:
  enum Type {
    TYPE_NULL,
    TYPE_BOOLEAN,
    TYPE_INTEGER,
    TYPE_DOUBLE,
    TYPE_STRING,
    TYPE_LIST,
    TYPE_DICTIONARY
  };

  static Value* CreateNullValue();
  static Value* CreateBooleanValue(bool value);
  static Value* CreateIntegerValue(int value);
  static Value* CreateDoubleValue(double value);
  static Value* CreateStringValue(const std::string& utf8);
  static Value* CreateStringValue(const std::wstring& wide);

  Value(const Value&) = delete;
  Value& operator=(const Value&) = delete;
  virtual ~Value();

  Type GetType() const { return type_; }
  bool IsType(Type type) const { return type_ == type; }

  // Each returns false (leaving *out alone) when the value is of another type.
  virtual bool GetAsBoolean(bool* out) const;
  virtual bool GetAsInteger(int* out) const;
  virtual bool GetAsDouble(double* out) const;  // integers convert
  virtual bool GetAsString(std::string* out) const;
  virtual bool GetAsString(std::wstring* out) const;

  // A new, independent copy owned by the caller.
  virtual Value* DeepCopy() const;
  virtual bool Equals(const Value* other) const;

 protected:
  explicit Value(Type type) : type_(type) {}

 private:
  Type type_;
};

class ZU_EXPORT DictionaryValue : public Value {
 public:
  DictionaryValue();
  ~DictionaryValue() override;

  bool HasKey(const std::string& key) const;
  size_t size() const { return values_.size(); }
  bool empty() const { return values_.empty(); }
  void Clear();
  std::vector<std::string> Keys() const;

  // Takes ownership of `value`; replaces (and frees) what the key held before.
  void Set(const std::string& key, Value* value);
  void SetBoolean(const std::string& key, bool value);
  void SetInteger(const std::string& key, int value);
  void SetDouble(const std::string& key, double value);
  void SetString(const std::string& key, const std::string& utf8);
  void SetString(const std::string& key, const std::wstring& wide);

  // Borrowed pointers; false when the key is missing or holds another type.
  bool Get(const std::string& key, Value** out) const;
  bool GetBoolean(const std::string& key, bool* out) const;
  bool GetInteger(const std::string& key, int* out) const;
  bool GetDouble(const std::string& key, double* out) const;
  bool GetString(const std::string& key, std::string* out) const;
  bool GetString(const std::string& key, std::wstring* out) const;
  bool GetList(const std::string& key, ListValue** out) const;
  bool GetDictionary(const std::string& key, DictionaryValue** out) const;

  // Removes the key; hands its value to *out (caller owns) or frees it when out is null.
  bool Remove(const std::string& key, Value** out);

  DictionaryValue* DeepCopy() const override;
  bool Equals(const Value* other) const override;

 private:
  std::map<std::string, std::unique_ptr<Value>> values_;  // sorted by key
};

class ZU_EXPORT ListValue : public Value {
 public:
  ListValue();
  ~ListValue() override;

  size_t GetSize() const { return values_.size(); }
  bool empty() const { return values_.empty(); }
  void Clear();

  // Takes ownership of `value`.
  void Append(Value* value);

  // Borrowed pointers; false when the index is out of range or holds another type.
  bool Get(size_t index, Value** out) const;
  bool GetInteger(size_t index, int* out) const;
  bool GetString(size_t index, std::string* out) const;
  bool GetString(size_t index, std::wstring* out) const;
  bool GetDictionary(size_t index, DictionaryValue** out) const;
  bool GetList(size_t index, ListValue** out) const;

  ListValue* DeepCopy() const override;
  bool Equals(const Value* other) const override;

 private:
  std::vector<std::unique_ptr<Value>> values_;
};

// JSON text of a tree (UTF-8). `pretty` indents with two spaces.
ZU_EXPORT std::string WriteJson(const Value& value, bool pretty = false);

// Parses JSON text into a new tree owned by the caller. Returns null and fills *error (when
// given) on malformed text. Numbers that are integral and fit an int become integers, other
// numbers become doubles.
ZU_EXPORT std::unique_ptr<Value> ReadJson(const std::string& text, std::string* error = nullptr);

// Convenience: ReadJson() that only accepts a dictionary at the top level.
ZU_EXPORT std::unique_ptr<DictionaryValue> ReadJsonDictionary(const std::string& text,
                                                              std::string* error = nullptr);

}  // namespace base

#endif  // ZU_DATA_MANAGER_VALUES_H_
