// The ordered collection shared across the gateway: positions count from 1, entries may carry a unique text
// key, and an entry can be removed by key or position. Key look-ups go through a hash index kept beside the
// ordered list. Hand it around as a CollectionPtr so that every holder sees the same list.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
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
        if (key && index_.contains(*key)) Raise(ErrorNumber::kDuplicateKey);
        entries_.push_back(Entry{std::move(key), std::move(item)});
        if (!entries_.back().key) return;
        try {
            index_.emplace(*entries_.back().key, entries_.size() - 1);
        } catch (...) {
            entries_.pop_back();
            throw;
        }
    }

    // The entry at `position` (from 1); a position that does not exist raises error 9.
    const T& Item(std::int32_t position) const { return entries_.at(Index(position)).item; }
    T& Item(std::int32_t position) { return entries_.at(Index(position)).item; }

    // The entry stored under `key`; an unknown key raises error 5.
    const T& Item(const std::string& key) const { return entries_[IndexOf(key)].item; }

    // Removes the entry at `position` (from 1); later entries move up by one.
    void Remove(std::int32_t position) { Erase(Index(position)); }

    // Removes the entry stored under `key`; an unknown key raises error 5.
    void Remove(const std::string& key) { Erase(IndexOf(key)); }

    // Iteration in order, over the items only.
    class const_iterator {
    public:
        explicit const_iterator(typename std::vector<Entry>::const_iterator it) : it_(it) {}
        const T& operator*() const { return it_->item; }
        const_iterator& operator++() {
            ++it_;
            return *this;
        }
        bool operator!=(const const_iterator& other) const { return it_ != other.it_; }

    private:
        typename std::vector<Entry>::const_iterator it_;
    };
    const_iterator begin() const { return const_iterator(entries_.begin()); }
    const_iterator end() const { return const_iterator(entries_.end()); }

private:
    std::size_t Index(std::int32_t position) const {
        if (position < 1 || position > Count()) Raise(ErrorNumber::kSubscriptOutOfRange);
        return static_cast<std::size_t>(position - 1);
    }

    std::size_t IndexOf(const std::string& key) const {
        const auto found = index_.find(key);
        if (found == index_.end()) Raise(ErrorNumber::kInvalidProcedureCall);
        return found->second;
    }

    // Removes entry i; the keyed entries after it move up by one in the index too.
    void Erase(std::size_t i) {
        if (entries_[i].key) index_.erase(*entries_[i].key);
        entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(i));
        for (std::size_t j = i; j < entries_.size(); ++j) {
            if (entries_[j].key) --index_[*entries_[j].key];
        }
    }

    std::vector<Entry> entries_;
    // Key -> index into entries_ (from 0), for every keyed entry.
    std::unordered_map<std::string, std::size_t> index_;
};

// Collections are shared objects: whoever holds the pointer works on the same list.
template <typename T>
using CollectionPtr = std::shared_ptr<Collection<T>>;

template <typename T>
CollectionPtr<T> MakeCollection() {
    return std::make_shared<Collection<T>>();
}

}  // namespace core
