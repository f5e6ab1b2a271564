// IdStamp: a process-unique identity for objects, made fresh on demand; Identified is the
// base that carries one.
#pragma once

#include <cstdint>
#include <functional>

class IdStamp {
public:
    constexpr IdStamp() noexcept = default; // the null stamp
    static IdStamp make() noexcept;         // a fresh stamp, never made before in this process

    uint64_t value() const noexcept { return value_; }
    bool valid() const noexcept { return value_ != 0; }
    friend bool operator==(IdStamp a, IdStamp b) noexcept { return a.value_ == b.value_; }
    friend bool operator<(IdStamp a, IdStamp b) noexcept { return a.value_ < b.value_; }

private:
    explicit constexpr IdStamp(uint64_t v) noexcept : value_(v) {}
    uint64_t value_ = 0;
};

class Identified {
public:
    Identified() noexcept : id_(IdStamp::make()) {}
    virtual ~Identified() = default;
    virtual IdStamp id() const { return id_; }
    virtual void id(const IdStamp& stamp) { id_ = stamp; }

private:
    IdStamp id_;
};
