// Vector<T>: the host's growable array, with the search-and-edit operations its callers
// use (locate, intern, remove by value or index, consume another vector).
#pragma once

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <utility>
#include <vector>

template <class T> class Vector {
public:
    using value_type = T;
    using iterator = typename std::vector<T>::iterator;
    using const_iterator = typename std::vector<T>::const_iterator;

    Vector() = default;
    Vector(std::initializer_list<T> items) : items_(items) {}
    explicit Vector(std::vector<T> items) : items_(std::move(items)) {}

    unsigned size() const noexcept { return unsigned(items_.size()); }
    bool empty() const noexcept { return items_.empty(); }
    T& operator[](unsigned i) { return items_[i]; }
    const T& operator[](unsigned i) const { return items_[i]; }
    iterator begin() noexcept { return items_.begin(); }
    iterator end() noexcept { return items_.end(); }
    const_iterator begin() const noexcept { return items_.begin(); }
    const_iterator end() const noexcept { return items_.end(); }
    T& front() { return items_.front(); }
    T& back() { return items_.back(); }
    const T& front() const { return items_.front(); }
    const T& back() const { return items_.back(); }

    void push_back(const T& item) { items_.push_back(item); }
    void push_back(T&& item) { items_.push_back(std::move(item)); }
    // Appends and answers the new item's index.
    unsigned add(const T& item) {
        items_.push_back(item);
        return size() - 1;
    }
    // Inserts before index (appends when index is past the end).
    void insert(const T& item, unsigned index) {
        size_t at = std::min<size_t>(index, items_.size());
        items_.push_back(item);
        std::rotate(items_.begin() + at, items_.end() - 1, items_.end());
    }
    // Index of the first element equal to item, or -1.
    int locate(const T& item) const {
        auto it = std::find(items_.begin(), items_.end(), item);
        return it == items_.end() ? -1 : int(it - items_.begin());
    }
    bool contains(const T& item) const { return locate(item) >= 0; }
    // Index of an element equal to item, adding it first if there is none.
    unsigned intern(const T& item) {
        int i = locate(item);
        return i >= 0 ? unsigned(i) : add(item);
    }
    // Removes the first element equal to item; false when there was none.
    bool remove(const T& item) {
        int i = locate(item);
        if (i < 0) return false;
        removeIdx(unsigned(i));
        return true;
    }
    bool removeItem(const T& item) { return remove(item); }
    void removeIdx(unsigned index) {
        if (index < items_.size()) items_.erase(items_.begin() + index);
    }
    // Makes room for n elements without changing the size.
    void resizeFor(unsigned n) { items_.reserve(n); }
    void resize(unsigned n) { items_.resize(n); }
    // Moves every element of other to the end of this one, leaving other empty.
    void consume(Vector& other) {
        items_.insert(items_.end(), std::make_move_iterator(other.items_.begin()),
                      std::make_move_iterator(other.items_.end()));
        other.items_.clear();
    }
    // clear keeps the storage for reuse; purge gives it back.
    void clear() noexcept { items_.clear(); }
    void purge() noexcept { std::vector<T>().swap(items_); }

    friend bool operator==(const Vector& a, const Vector& b) { return a.items_ == b.items_; }

private:
    std::vector<T> items_;
};
