#pragma once

#include <list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "core/Text.h"

namespace tavrel {

// An insertion-ordered map from text keys to values: the dictionary (and, through Add's "first key
// wins", the collection) of this program. With textCompare the keys are compared without regard to
// ASCII case; the key as first added is the one kept and listed.
template <class V>
class OrderedDict {
 public:
  struct Entry {
    std::string key;
    V value;
  };
  using iterator = typename std::list<Entry>::iterator;
  using const_iterator = typename std::list<Entry>::const_iterator;

  explicit OrderedDict(bool textCompare = false) : textCompare_(textCompare) {}
  OrderedDict(const OrderedDict& other) : textCompare_(other.textCompare_) {
    for (const auto& e : other.entries_) Add(e.key, e.value);
  }
  OrderedDict& operator=(const OrderedDict& other) {
    if (this != &other) {
      textCompare_ = other.textCompare_;
      RemoveAll();
      for (const auto& e : other.entries_) Add(e.key, e.value);
    }
    return *this;
  }
  OrderedDict(OrderedDict&&) noexcept = default;
  OrderedDict& operator=(OrderedDict&&) noexcept = default;

  size_t Count() const { return entries_.size(); }
  bool Empty() const { return entries_.empty(); }
  bool Exists(std::string_view key) const { return index_.count(Fold(key)) != 0; }

  // Adds the pair unless the key is present; returns false (and changes nothing) when it is.
  bool Add(std::string_view key, V value) {
    std::string folded = Fold(key);
    if (index_.count(folded)) return false;
    entries_.push_back(Entry{std::string(key), std::move(value)});
    index_.emplace(std::move(folded), std::prev(entries_.end()));
    return true;
  }

  V* Find(std::string_view key) {
    auto it = index_.find(Fold(key));
    return it == index_.end() ? nullptr : &it->second->value;
  }
  const V* Find(std::string_view key) const {
    auto it = index_.find(Fold(key));
    return it == index_.end() ? nullptr : &it->second->value;
  }

  // The item under key, created with a default value when missing.
  V& operator[](std::string_view key) {
    if (V* v = Find(key)) return *v;
    Add(key, V{});
    return entries_.back().value;
  }

  bool Remove(std::string_view key) {
    auto it = index_.find(Fold(key));
    if (it == index_.end()) return false;
    entries_.erase(it->second);
    index_.erase(it);
    return true;
  }

  void RemoveAll() {
    entries_.clear();
    index_.clear();
  }

  std::vector<std::string> Keys() const {
    std::vector<std::string> keys;
    keys.reserve(entries_.size());
    for (const auto& e : entries_) keys.push_back(e.key);
    return keys;
  }

  iterator begin() { return entries_.begin(); }
  iterator end() { return entries_.end(); }
  const_iterator begin() const { return entries_.begin(); }
  const_iterator end() const { return entries_.end(); }

 private:
  std::string Fold(std::string_view key) const { return textCompare_ ? LCase(key) : std::string(key); }

  bool textCompare_;
  std::list<Entry> entries_;
  std::unordered_map<std::string, iterator> index_;
};

}  // namespace tavrel
