// Value and Dict: storage, typed lookups and numeric conversions.
#include "plist/value.h"

#include <cmath>
#include <limits>
#include <tuple>

namespace plist {

// ---- Dict ----

Dict::Dict() = default;
Dict::~Dict() = default;

Dict::Dict(std::initializer_list<Entry> entries) {
  for (const auto& e : entries) set(e.first, e.second);
}

Dict::Dict(const Dict& other) : entries_(other.entries_) {
  if (other.index_) rebuild_index();
}

// A moved vector keeps its buffer, so the index's views stay valid and the
// index can move with it.
Dict::Dict(Dict&& other) noexcept : entries_(std::move(other.entries_)), index_(std::move(other.index_)) {}

Dict& Dict::operator=(const Dict& other) {
  if (this != &other) {
    entries_ = other.entries_;
    index_.reset();
    if (other.index_) rebuild_index();
  }
  return *this;
}

Dict& Dict::operator=(Dict&& other) noexcept {
  if (this != &other) {
    entries_ = std::move(other.entries_);
    index_ = std::move(other.index_);
  }
  return *this;
}

void Dict::rebuild_index() const {
  index_ = std::make_unique<std::unordered_map<std::string_view, size_t>>();
  index_->reserve(entries_.size() * 2);
  for (size_t i = 0; i < entries_.size(); ++i) index_->emplace(entries_[i].first, i);
}

// Never builds the index itself: lookups run on const dictionaries, and
// concurrent readers must not race on a lazily made index.
size_t Dict::position_of(std::string_view key) const {
  if (index_) {
    auto it = index_->find(key);
    return it == index_->end() ? entries_.size() : it->second;
  }
  for (size_t i = 0; i < entries_.size(); ++i)
    if (entries_[i].first == key) return i;
  return entries_.size();
}

const Value* Dict::find(std::string_view key) const {
  size_t i = position_of(key);
  return i < entries_.size() ? &entries_[i].second : nullptr;
}

Value* Dict::find(std::string_view key) {
  size_t i = position_of(key);
  return i < entries_.size() ? &entries_[i].second : nullptr;
}

const std::string* Dict::find_string(std::string_view key) const {
  const Value* v = find(key);
  return v ? v->as_string() : nullptr;
}

const Dict* Dict::find_dict(std::string_view key) const {
  const Value* v = find(key);
  return v ? v->as_dict() : nullptr;
}

Dict* Dict::find_dict(std::string_view key) {
  Value* v = find(key);
  return v ? v->as_dict() : nullptr;
}

const Array* Dict::find_array(std::string_view key) const {
  const Value* v = find(key);
  return v ? v->as_array() : nullptr;
}

const Value* Dict::find_number(std::string_view key) const {
  const Value* v = find(key);
  return v && v->is_number() ? v : nullptr;
}

void Dict::set(std::string_view key, Value value) { (*this)[key] = std::move(value); }

Value& Dict::operator[](std::string_view key) {
  size_t i = position_of(key);
  if (i < entries_.size()) return entries_[i].second;
  // Appending may move every key's storage (short keys live inside the
  // entries), so a reallocation means the view-keyed index must be rebuilt.
  bool will_reallocate = entries_.size() == entries_.capacity();
  entries_.emplace_back(std::piecewise_construct, std::forward_as_tuple(key), std::forward_as_tuple());
  if (index_ && !will_reallocate)
    index_->emplace(entries_.back().first, entries_.size() - 1);
  else if (entries_.size() >= kIndexThreshold)
    rebuild_index();
  return entries_.back().second;
}

void Dict::reserve(size_t n) {
  if (n <= entries_.capacity()) return;
  entries_.reserve(n);
  // The entries moved, and with them any short keys the index points into.
  if (index_) rebuild_index();
}

bool Dict::remove(std::string_view key) {
  size_t i = position_of(key);
  if (i >= entries_.size()) return false;
  entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(i));
  index_.reset();
  if (entries_.size() >= kIndexThreshold) rebuild_index();
  return true;
}

void Dict::merge(const Dict& changes) {
  for (const auto& [k, v] : changes) set(k, v);
}

void Dict::clear() {
  entries_.clear();
  index_.reset();
}

bool Dict::operator==(const Dict& other) const {
  if (size() != other.size()) return false;
  for (const auto& [k, v] : entries_) {
    const Value* o = other.find(k);
    if (!o || !(*o == v)) return false;
  }
  return true;
}

// ---- Value ----

bool Value::is_number() const {
  switch (type()) {
    case Type::Bool:
    case Type::Integer:
    case Type::Unsigned:
    case Type::Real:
      return true;
    default:
      return false;
  }
}

namespace {

template <typename T>
T saturate(double d) {
  if (std::isnan(d)) return 0;
  d = std::trunc(d);
  if (d <= static_cast<double>(std::numeric_limits<T>::min())) return std::numeric_limits<T>::min();
  // The double nearest to max() may round up past it; compare with >=.
  if (d >= static_cast<double>(std::numeric_limits<T>::max())) return std::numeric_limits<T>::max();
  return static_cast<T>(d);
}

}  // namespace

std::optional<int64_t> Value::to_int64() const {
  switch (type()) {
    case Type::Bool:
      return *as_bool() ? 1 : 0;
    case Type::Integer:
      return *as_integer();
    case Type::Unsigned:
      return static_cast<int64_t>(*as_unsigned());  // two's complement, as a C cast
    case Type::Real:
      return saturate<int64_t>(*as_real());
    default:
      return std::nullopt;
  }
}

std::optional<uint64_t> Value::to_uint64() const {
  switch (type()) {
    case Type::Bool:
      return *as_bool() ? 1u : 0u;
    case Type::Integer:
      return static_cast<uint64_t>(*as_integer());
    case Type::Unsigned:
      return *as_unsigned();
    case Type::Real:
      return saturate<uint64_t>(*as_real());
    default:
      return std::nullopt;
  }
}

std::optional<int32_t> Value::to_int32() const {
  if (type() == Type::Real) return saturate<int32_t>(*as_real());
  auto v = to_int64();
  if (!v) return std::nullopt;
  return static_cast<int32_t>(static_cast<uint32_t>(static_cast<uint64_t>(*v)));
}

std::optional<double> Value::to_double() const {
  switch (type()) {
    case Type::Bool:
      return *as_bool() ? 1.0 : 0.0;
    case Type::Integer:
      return static_cast<double>(*as_integer());
    case Type::Unsigned:
      return static_cast<double>(*as_unsigned());
    case Type::Real:
      return *as_real();
    default:
      return std::nullopt;
  }
}

bool Value::number_is_true() const {
  switch (type()) {
    case Type::Bool:
      return *as_bool();
    case Type::Integer:
      return *as_integer() != 0;
    case Type::Unsigned:
      return *as_unsigned() != 0;
    case Type::Real:
      return *as_real() != 0.0;
    default:
      return false;
  }
}

bool Value::operator==(const Value& other) const {
  if (is_number() && other.is_number()) {
    if (type() == Type::Real || other.type() == Type::Real) return *to_double() == *other.to_double();
    bool neg_a = type() == Type::Integer && *as_integer() < 0;
    bool neg_b = other.type() == Type::Integer && *other.as_integer() < 0;
    if (neg_a != neg_b) return false;
    return *to_uint64() == *other.to_uint64();
  }
  return v_ == other.v_;
}

bool is_flag_set(const Value* v) {
  if (!v) return false;
  if (const std::string* s = v->as_string()) return *s == "YES";
  return v->number_is_true();
}

// ---- KeyValueList ----

KeyValueList& KeyValueList::add(std::string_view key, std::optional<Value> value) {
  if (ended_) return *this;
  if (!value || value->is_null()) {
    ended_ = true;
    return *this;
  }
  dict_.set(key, std::move(*value));
  return *this;
}

KeyValueList& KeyValueList::add(std::string_view key, const Value* value) {
  if (!value) return add(key, std::optional<Value>());
  return add(key, std::optional<Value>(*value));
}

}  // namespace plist
