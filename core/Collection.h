// The ordered collection shared across the gateway: positions count from 1, entries may carry a unique text
// key, and an entry can be removed by key or position. Hand it around as a CollectionPtr so that every
// holder sees the same list.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "core/Error.h"

namespace core {

template <typename T>
class Collection {
    // Declared first: the iterator below names it.
    struct Entry {
        std::optional<std::string> key;
        T item;
    };

public:
    // Number of entries.
    std::int32_t Count() const { return static_cast<std::int32_t>(entries_.size()); }

    // Appends `item`, under `key` when one is given; a key already present raises error 457.
    void Add(T item, std::optional<std::string> key = std::nullopt) {
        if (key && Find(*key) != entries_.end()) Raise(ErrorNumber::kDuplicateKey);
        entries_.push_back(Entry{std::move(key), std::move(item)});
    }

    // The entry at `position` (from 1); a position that does not exist raises error 9.
    const T& Item(std::int32_t position) const { return entries_.at(Index(position)).item; }
    T& Item(std::int32_t position) { return entries_.at(Index(position)).item; }

    // The entry stored under `key`; an unknown key raises error 5.
    const T& Item(const std::string& key) const { return FindOrRaise(key)->item; }

    // Removes the entry at `position` (from 1); later entries move up by one.
    void Remove(std::int32_t position) { entries_.erase(entries_.begin() + Index(position)); }

    // Removes the entry stored under `key`; an unknown key raises error 5.
    void Remove(const std::string& key) { entries_.erase(FindOrRaise(key)); }

    // Iteration in order, over the items only.
    class const_iterator {
    public:
        explicit const_iterator(typename std::vector<typename Collection::Entry>::const_iterator it) : it_(it) {}
        const T& operator*() const { return it_->item; }
        const_iterator& operator++() {
            ++it_;
            return *this;
        }
        bool operator!=(const const_iterator& other) const { return it_ != other.it_; }

    private:
        typename std::vector<typename Collection::Entry>::const_iterator it_;
    };
    const_iterator begin() const { return const_iterator(entries_.begin()); }
    const_iterator end() const { return const_iterator(entries_.end()); }

private:
    std::size_t Index(std::int32_t position) const {
        if (position < 1 || position > Count()) Raise(ErrorNumber::kSubscriptOutOfRange);
        return static_cast<std::size_t>(position - 1);
    }

    typename std::vector<Entry>::iterator Find(const std::string& key) {
        return std::find_if(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.key == key; });
    }
    typename std::vector<Entry>::const_iterator Find(const std::string& key) const {
        return std::find_if(entries_.begin(), entries_.end(), [&](const Entry& e) { return e.key == key; });
    }
    typename std::vector<Entry>::iterator FindOrRaise(const std::string& key) {
        auto it = Find(key);
        if (it == entries_.end()) Raise(ErrorNumber::kInvalidProcedureCall);
        return it;
    }
    typename std::vector<Entry>::const_iterator FindOrRaise(const std::string& key) const {
        auto it = Find(key);
        if (it == entries_.end()) Raise(ErrorNumber::kInvalidProcedureCall);
        return it;
    }

    std::vector<Entry> entries_;
};

// Collections are shared objects: whoever holds the pointer works on the same list.
template <typename T>
using CollectionPtr = std::shared_ptr<Collection<T>>;

template <typename T>
CollectionPtr<T> MakeCollection() {
    return std::make_shared<Collection<T>>();
}

}  // namespace core
