#include "NorFlash.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "CardsState.h"

namespace qvsim {
namespace {

bool ReadAt(int fd, uint8_t* data, size_t size, uint32_t offset) {
    while (size > 0) {
        const ssize_t n = pread(fd, data, size, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        offset += static_cast<uint32_t>(n);
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool WriteAt(int fd, const uint8_t* data, size_t size, uint32_t offset) {
    while (size > 0) {
        const ssize_t n = pwrite(fd, data, size, static_cast<off_t>(offset));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        data += n;
        offset += static_cast<uint32_t>(n);
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool AllZero(const uint8_t* data, size_t size) {
    return std::all_of(data, data + size, [](uint8_t byte) { return byte == 0; });
}

}  // namespace

NorFlash::~NorFlash() {
    if (fd_ >= 0) close(fd_);
}

NorFlash::NorFlash(uint32_t size) : memory_(size), size_(size) {}

std::string NorFlash::Open(const std::string& path, uint32_t size) {
    // Sizes stay below 2 GiB, so that a 32-bit off_t reaches every byte.
    if (size == 0 || size > 0x7FFFF000u || size % kSector != 0)
        return path + ": flash size " + std::to_string(size) + " is not a multiple of 4096";
    fd_ = OpenOutOfTheWay(path, O_RDWR | O_CREAT);
    if (fd_ < 0 || ftruncate(fd_, static_cast<off_t>(size)) != 0)
        return path + ": " + std::strerror(errno);
    size_ = size;
    mapPath_ = path + ".map";
    LoadMap();
    return {};
}

bool NorFlash::ReadCells(uint8_t* cells, size_t size, uint32_t offset) const {
    if (memory_.empty()) return ReadAt(fd_, cells, size, offset);
    std::copy_n(memory_.begin() + offset, size, cells);
    return true;
}

bool NorFlash::WriteCells(const uint8_t* cells, size_t size, uint32_t offset) {
    if (memory_.empty()) return WriteAt(fd_, cells, size, offset);
    std::copy_n(cells, size, memory_.begin() + offset);
    return true;
}

bool NorFlash::Erase(uint32_t offset, uint32_t size) {
    if (!InRange(offset, size)) return false;
    if (size == 0) return true;
    const uint32_t begin = offset / kSector * kSector;
    const uint32_t end = (offset + size - 1) / kSector * kSector + kSector;
    // The map first: a crash in between must not leave an erased image looking complete.
    Forget(begin, end);
    if (!SaveMap()) return false;
    uint8_t sector[kSector];
    for (uint32_t at = begin; at < end; at += kSector) {
        // What is blank already stays a hole: the file of a mostly empty flash stays small.
        if (!ReadCells(sector, kSector, at)) return false;
        if (AllZero(sector, kSector)) continue;
        std::memset(sector, 0, kSector);
        if (!WriteCells(sector, kSector, at)) return false;
    }
    return true;
}

bool NorFlash::ProgramPiece(uint32_t offset, const uint8_t* data, uint32_t size, uint8_t stuck) {
    if (!InRange(offset, size)) return false;
    uint8_t cells[kSector];
    for (uint32_t done = 0; done < size;) {
        const uint32_t at = offset + done;
        const uint32_t n = std::min(size - done, kSector - at % kSector);
        if (!ReadCells(cells, n, at)) return false;
        bool exact = true;
        for (uint32_t i = 0; i < n; ++i) {
            // A cell holds the complement: a set bit here is a programmed, that is cleared, bit.
            cells[i] = static_cast<uint8_t>(cells[i] | (~data[done + i] & ~stuck));
            exact = exact && static_cast<uint8_t>(~cells[i]) == data[done + i];
        }
        if (!WriteCells(cells, n, at)) return false;
        Forget(at, at + n);
        if (exact) Remember(at, at + n);
        done += n;
    }
    return true;
}

bool NorFlash::Read(uint32_t offset, uint8_t* data, uint32_t size) const {
    if (!InRange(offset, size) || !ReadCells(data, size, offset)) return false;
    for (uint32_t i = 0; i < size; ++i) data[i] = static_cast<uint8_t>(~data[i]);
    return true;
}

bool NorFlash::Garble(uint32_t offset) {
    if (!InRange(offset, 1)) return false;
    const uint32_t begin = offset / kSector * kSector;
    Forget(begin, begin + kSector);
    if (!SaveMap()) return false;
    uint8_t sector[kSector];
    uint32_t value = begin | 1;
    for (uint8_t& byte : sector) {
        value = value * 1664525u + 1013904223u;
        byte = static_cast<uint8_t>(value >> 24);
    }
    return WriteCells(sector, kSector, begin);
}

bool NorFlash::Programmed(uint32_t offset, uint32_t size) const {
    if (!InRange(offset, size)) return false;
    if (size == 0) return true;
    auto range = programmed_.upper_bound(offset);
    if (range == programmed_.begin()) return false;
    --range;
    return range->second >= offset + size;
}

bool NorFlash::Blank(uint32_t offset, uint32_t size) const {
    if (!InRange(offset, size)) return false;
    uint8_t cells[kSector];
    for (uint32_t done = 0; done < size;) {
        const uint32_t n = std::min(size - done, kSector);
        if (!ReadCells(cells, n, offset + done) || !AllZero(cells, n)) return false;
        done += n;
    }
    return true;
}

bool NorFlash::SetBootAddress(uint32_t address) {
    mapChanged_ = mapChanged_ || bootAddress_ != address;
    bootAddress_ = address;
    return SaveMap();
}

void NorFlash::Forget(uint32_t begin, uint32_t end) {
    auto range = programmed_.upper_bound(begin);
    if (range != programmed_.begin()) --range;
    while (range != programmed_.end() && range->first < end) {
        const auto [first, last] = *range;
        if (last <= begin) {
            ++range;
            continue;
        }
        mapChanged_ = true;
        range = programmed_.erase(range);
        if (first < begin) programmed_[first] = begin;
        if (last > end) programmed_[end] = last;
    }
}

void NorFlash::Remember(uint32_t begin, uint32_t end) {
    mapChanged_ = true;
    auto next = programmed_.lower_bound(begin);
    if (next != programmed_.begin()) {
        auto previous = std::prev(next);
        if (previous->second == begin) {
            begin = previous->first;
            programmed_.erase(previous);
        }
    }
    next = programmed_.find(end);
    if (next != programmed_.end()) {
        end = next->second;
        programmed_.erase(next);
    }
    programmed_[begin] = end;
}

bool NorFlash::SaveMap() {
    if (mapPath_.empty() || !mapChanged_) return true;
    char line[64];
    std::snprintf(line, sizeof line, "boot 0x%x\n", bootAddress_);
    std::string text = line;
    for (const auto& [begin, end] : programmed_) {
        std::snprintf(line, sizeof line, "0x%x 0x%x\n", begin, end);
        text += line;
    }
    mapChanged_ = !ReplaceFile(mapPath_, text);
    return !mapChanged_;
}

void NorFlash::LoadMap() {
    if (mapPath_.empty()) return;
    programmed_.clear();
    bootAddress_ = 0;
    mapChanged_ = false;
    std::FILE* file = std::fopen(mapPath_.c_str(), "re");
    if (!file) return;  // a fresh chip
    unsigned begin = 0;
    unsigned end = 0;
    if (std::fscanf(file, "boot %x", &begin) == 1) bootAddress_ = begin;
    while (std::fscanf(file, "%x %x", &begin, &end) == 2)
        if (begin < end && end <= size_) programmed_[begin] = end;
    std::fclose(file);
}

}  // namespace qvsim
