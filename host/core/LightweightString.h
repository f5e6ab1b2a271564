// LightweightString<C>: the host's immutable, reference-counted string. Copies share one
// body; the body may be absent (a null string), which compares equal to an empty one.
// File names are LightweightString<wchar_t> (32-bit characters).
#pragma once

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstring>
#include <functional>
#include <new>
#include <string>
#include <string_view>

template <class C> class LightweightString {
public:
    using char_type = C;
    using view_type = std::basic_string_view<C>;
    static constexpr size_t npos = view_type::npos;

    LightweightString() noexcept = default;
    LightweightString(const C* s) : LightweightString(s ? view_type(s) : view_type(), s != nullptr) {}
    LightweightString(const C* s, size_t n) : LightweightString(view_type(s, n), true) {}
    LightweightString(view_type v) : LightweightString(v, true) {}
    LightweightString(const std::basic_string<C>& s) : LightweightString(view_type(s), true) {}
    LightweightString(size_t n, C c) : body_(Body::make(n)) {
        for (size_t i = 0; i < n; ++i) body_->data[i] = c;
    }
    LightweightString(const LightweightString& o) noexcept : body_(o.body_) { if (body_) body_->ref(); }
    LightweightString(LightweightString&& o) noexcept : body_(o.body_) { o.body_ = nullptr; }
    ~LightweightString() { Body::unref(body_); }

    LightweightString& operator=(const LightweightString& o) noexcept {
        if (o.body_) o.body_->ref();
        Body::unref(body_);
        body_ = o.body_;
        return *this;
    }
    LightweightString& operator=(LightweightString&& o) noexcept {
        if (this != &o) {
            Body::unref(body_);
            body_ = o.body_;
            o.body_ = nullptr;
        }
        return *this;
    }

    // True when there is no body at all (as opposed to an empty text).
    bool isNull() const noexcept { return body_ == nullptr; }
    bool empty() const noexcept { return size() == 0; }
    size_t size() const noexcept { return body_ ? body_->len : 0; }
    size_t length() const noexcept { return size(); }
    const C* c_str() const noexcept { return body_ ? body_->data : emptyText(); }
    const C* data() const noexcept { return c_str(); }
    C operator[](size_t i) const noexcept { return c_str()[i]; }
    view_type view() const noexcept { return view_type(c_str(), size()); }
    operator view_type() const noexcept { return view(); }
    std::basic_string<C> str() const { return std::basic_string<C>(view()); }
    const C* begin() const noexcept { return c_str(); }
    const C* end() const noexcept { return c_str() + size(); }

    size_t find(C c, size_t pos = 0) const noexcept { return view().find(c, pos); }
    size_t find(view_type s, size_t pos = 0) const noexcept { return view().find(s, pos); }
    size_t rfind(C c, size_t pos = npos) const noexcept { return view().rfind(c, pos); }
    bool startsWith(view_type s) const noexcept { return view().starts_with(s); }
    bool endsWith(view_type s) const noexcept { return view().ends_with(s); }
    LightweightString substr(size_t pos, size_t n = npos) const {
        return pos >= size() ? LightweightString(view_type()) : LightweightString(view().substr(pos, n));
    }

    friend LightweightString operator+(const LightweightString& a, view_type b) { return concat(a.view(), b); }
    friend LightweightString operator+(const LightweightString& a, const LightweightString& b) {
        return concat(a.view(), b.view());
    }
    friend LightweightString operator+(const LightweightString& a, const C* b) { return concat(a.view(), view_type(b)); }
    friend LightweightString operator+(const C* a, const LightweightString& b) { return concat(view_type(a), b.view()); }
    friend LightweightString operator+(const LightweightString& a, C c) { return concat(a.view(), view_type(&c, 1)); }
    LightweightString& operator+=(view_type b) { return *this = concat(view(), b); }
    LightweightString& operator+=(C c) { return *this = concat(view(), view_type(&c, 1)); }

    friend bool operator==(const LightweightString& a, const LightweightString& b) noexcept {
        return a.body_ == b.body_ || a.view() == b.view();
    }
    friend bool operator==(const LightweightString& a, const C* b) noexcept { return a.view() == view_type(b ? b : emptyText()); }
    friend bool operator==(const LightweightString& a, view_type b) noexcept { return a.view() == b; }
    friend std::strong_ordering operator<=>(const LightweightString& a, const LightweightString& b) noexcept {
        return a.view() <=> b.view();
    }

private:
    struct Body {
        std::atomic<int> refs;
        size_t len;
        C data[1];

        static Body* make(size_t n) {
            void* mem = ::operator new(offsetof(Body, data) + (n + 1) * sizeof(C));
            Body* b = static_cast<Body*>(mem);
            new (&b->refs) std::atomic<int>(1);
            b->len = n;
            b->data[n] = C();
            return b;
        }
        void ref() noexcept { refs.fetch_add(1, std::memory_order_relaxed); }
        static void unref(Body* b) noexcept {
            if (b && b->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) ::operator delete(b);
        }
    };

    LightweightString(view_type v, bool present) {
        if (!present) return;
        body_ = Body::make(v.size());
        if (!v.empty()) std::memcpy(body_->data, v.data(), v.size() * sizeof(C));
    }
    static LightweightString concat(view_type a, view_type b) {
        LightweightString r;
        r.body_ = Body::make(a.size() + b.size());
        if (!a.empty()) std::memcpy(r.body_->data, a.data(), a.size() * sizeof(C));
        if (!b.empty()) std::memcpy(r.body_->data + a.size(), b.data(), b.size() * sizeof(C));
        return r;
    }
    static const C* emptyText() noexcept {
        static const C e[1] = {C()};
        return e;
    }

    Body* body_ = nullptr;
};

using String = LightweightString<char>;
using WString = LightweightString<wchar_t>;

template <class C> struct std::hash<LightweightString<C>> {
    size_t operator()(const LightweightString<C>& s) const noexcept {
        return std::hash<std::basic_string_view<C>>()(s.view());
    }
};
