// The only way from the library to the driver's ioctl, and the few shapes that its requests have.
//
// Every helper checks its arguments (QV_RESULT_BAD_ARGUMENT) and makes exactly one request; only
// ioctl's return value decides: 0 is QV_RESULT_OK, anything else QV_RESULT_FAILED. Out-values are
// stored on success only. No state; as thread-safe as the driver.
#pragma once

#include <sys/ioctl.h>

#include <cstring>

#include "QVDriverRequests.h"

namespace qv {

inline constexpr int kClosed = -1;  // value of a descriptor that is not open

// Plain ioctl: returns its value, errno is set by it.
template <Direction direction, class Record>
int Call(int fd, Request<direction, Record> request, Record* record) {
    return ioctl(fd, request.code, record);
}
inline int Call(int fd, Action request) { return ioctl(fd, request.code, nullptr); }

inline QV_RESULT FromCall(int returned) { return returned == 0 ? QV_RESULT_OK : QV_RESULT_FAILED; }

inline QV_RESULT Do(int fd, Action request) {
    if (fd == kClosed) return QV_RESULT_BAD_ARGUMENT;
    return FromCall(Call(fd, request));
}

// Sends a record that the library filled.
template <class Record>
QV_RESULT Do(int fd, Set<Record> request, Record record) {
    if (fd == kClosed) return QV_RESULT_BAD_ARGUMENT;
    return FromCall(Call(fd, request, &record));
}

// Sends a copy of the caller's record, so that a driver cannot write into a const one.
template <class Record>
QV_RESULT DoGiven(int fd, Set<Record> request, const Record* given) {
    if (given == nullptr) return QV_RESULT_BAD_ARGUMENT;
    return Do(fd, request, *given);
}

// Sends a value in the width of the record: callers pass int, the record has int32_t.
template <class Record, class Value>
QV_RESULT DoValue(int fd, Set<Record> request, Value value) {
    static_assert(sizeof(Record) == sizeof(Value));
    return Do(fd, request, static_cast<Record>(value));
}

// Sends a handle; 0 means none.
inline QV_RESULT DoHandle(int fd, Set<uint64_t> request, unsigned long long handle) {
    if (handle == 0) return QV_RESULT_BAD_ARGUMENT;
    return Do(fd, request, uint64_t{handle});
}

template <class Record, class Out>
QV_RESULT Do(int fd, Get<Record> request, Out* out) {
    static_assert(sizeof(Record) == sizeof(Out));
    if (fd == kClosed || out == nullptr) return QV_RESULT_BAD_ARGUMENT;
    Record record{};
    if (Call(fd, request, &record) != 0) return QV_RESULT_FAILED;
    *out = static_cast<Out>(record);
    return QV_RESULT_OK;
}

template <class Record>
QV_RESULT Do(int fd, Exchange<Record> request, Record* record) {
    if (fd == kClosed) return QV_RESULT_BAD_ARGUMENT;
    return FromCall(Call(fd, request, record));
}

// How to treat a driver count above the caller's capacity.
enum class Excess {
    kHandBack,  // returned to the caller: it says how much there is
    kRefuse,    // a failure, the caller's count stays
};

// Reads an array of elements or bytes: capacity in *count going in, the driver's count coming back.
template <class Element, class Count>
QV_RESULT DoArray(int fd, Exchange<CountedArrayRecord> request, Element* array, Count* count,
                  Excess excess = Excess::kHandBack) {
    if (fd == kClosed || array == nullptr || count == nullptr) return QV_RESULT_BAD_ARGUMENT;
    // Deliberate: a capacity beyond 32 bits is sent as the largest that the record holds.
    const uint32_t capacity = *count > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(*count);
    CountedArrayRecord record{capacity, WireAddress(array)};
    if (Call(fd, request, &record) != 0) return QV_RESULT_FAILED;
    if (excess == Excess::kRefuse && record.count > capacity) return QV_RESULT_FAILED;
    *count = record.count;
    return QV_RESULT_OK;
}

// Sends an array; nothing is read back. A count that does not fit 32 bits is refused.
template <class Element>
QV_RESULT DoArray(int fd, Set<CountedArrayRecord> request, const Element* array,
                  unsigned long count) {
    if (array == nullptr || count > UINT32_MAX) return QV_RESULT_BAD_ARGUMENT;
    return Do(fd, request, CountedArrayRecord{static_cast<uint32_t>(count), WireAddress(array)});
}

}  // namespace qv
