// The library's status values and the integer wrapper that hands numbers to the
// probe's log messages. Almost every library operation returns a KyStatus and keeps
// the details of a failure in its object's last error.
#pragma once

#include <concepts>

// One byte compared by value; the three spellings exist so a result reads as what it means.
enum KyStatus : unsigned char {
    Failure = 0,
    False = 0,
    Even = 0,
    Success = 1,
    True = 1,
    Odd = 1,
};

constexpr KyStatus AsStatus(bool value) { return value ? Success : Failure; }

// A thin wrapper of an integer, so message functions can tell numbers from text.
template <std::integral T>
class KyScalar {
public:
    constexpr KyScalar(T value) : value_(value) {}
    constexpr operator T() const { return value_; }
    constexpr T Value() const { return value_; }

private:
    T value_;
};
