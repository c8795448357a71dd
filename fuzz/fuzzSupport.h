// What every harness shares: taking typed values off a fuzz input, stopping the run on a broken
// property, and counting the gateway's precondition reports instead of printing them.
#ifndef FUZZ_SUPPORT_H
#define FUZZ_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "api/gatewayTypes.h"

// The entry that libFuzzer, or the replay main, calls with each input.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// A property the harness checks does not hold: report it and stop, as a sanitizer would.
#define FUZZ_CHECK(condition)                                                                      \
    do                                                                                             \
    {                                                                                              \
        if (!(condition))                                                                          \
        {                                                                                          \
            std::fprintf(stderr, "%s:%d: fuzz check failed: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                          \
        }                                                                                          \
    } while (0)

// Counts precondition reports; installed once per harness process.
struct AssertionCount
{
    static unsigned long& value()
    {
        static unsigned long count = 0;
        return count;
    }
    static void record(const char*, const char*, const char*, int) { ++value(); }
    static void install() { EGW_SetAssertHandler(&AssertionCount::record); }
};

// Takes typed values off the front of a fuzz input; past its end every value reads as zero, so a
// harness never needs to check the length before it takes.
class FuzzInput
{
public:
    FuzzInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    template <typename T> T take()
    {
        T value{};
        const size_t n = sizeof(T) < size_ ? sizeof(T) : size_;
        if (n != 0)
            std::memcpy(&value, data_, n);
        advance(n);
        return value;
    }

    // Up to `count` bytes as a string (fewer when the input ends).
    std::string takeBytes(size_t count)
    {
        const size_t n = count < size_ ? count : size_;
        std::string bytes(reinterpret_cast<const char*>(data_), n);
        advance(n);
        return bytes;
    }

    std::string rest() { return takeBytes(size_); }
    size_t remaining() const { return size_; }

private:
    void advance(size_t n)
    {
        data_ += n;
        size_ -= n;
    }

    const uint8_t* data_;
    size_t size_;
};

#endif
