// One simulated Pelix channel, opened through the public interface, for the tests of the library.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "QVCapture.h"
#include "QVCaptureBase.h"
#include "gmock/gmock.h"
#include "support/SimRig.h"

namespace qvtest {

using qvsim::Bytes;
using qvsim::Fault;
using qvsim::Lumo;
using qvsim::Pelix;
using qvsim::Refuse;
using qvsim::SimRig;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uint8_t kUntouched = 0xCC;  // 0x00 is a fresh heap, 0xFF an erased flash

// Seeded, so that a failure repeats.
inline Bytes ArbitraryBytes(size_t size, uint32_t seed) {
    std::mt19937 random(seed);
    Bytes bytes(size);
    for (auto& byte : bytes) byte = static_cast<uint8_t>(random());
    return bytes;
}

inline Bytes Slice(const Bytes& bytes, size_t from, size_t to) {
    return to <= bytes.size() ? Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from),
                                      bytes.begin() + static_cast<std::ptrdiff_t>(to))
                              : Bytes();
}

template <class T>
Bytes BytesOf(const T& value) {
    const auto* first = reinterpret_cast<const uint8_t*>(&value);
    return Bytes(first, first + sizeof value);
}

// Little-endian bytes of the given width, appended one after another.
class Wire {
  public:
    Wire& U8(uint64_t value) { return Put(value, 1); }
    Wire& U16(uint64_t value) { return Put(value, 2); }
    Wire& U32(uint64_t value) { return Put(value, 4); }
    Wire& U64(uint64_t value) { return Put(value, 8); }
    Wire& Zeros(size_t count) {
        m_bytes.resize(m_bytes.size() + count);
        return *this;
    }
    operator Bytes() const { return m_bytes; }

  private:
    Wire& Put(uint64_t value, int width) {
        for (int i = 0; i < width; ++i) m_bytes.push_back(static_cast<uint8_t>(value >> 8 * i));
        return *this;
    }
    Bytes m_bytes;
};

class ChannelTest : public testing::Test {
  protected:
    void SetUp() override {
        rig.Add(BoardUnderTest());
        rig.Attach();
        ASSERT_TRUE(QVCaptureInitInstance());
        channel = QVOpenChannelByPath("/dev/video0");
        ASSERT_NE(nullptr, channel);
        rig.ClearJournal();
    }
    void TearDown() override {
        QVCloseChannel(channel);
        QVCaptureExitInstance();
        EXPECT_EQ(qvsim::Alive{}, rig.Cards().CountAlive());
    }
    virtual qvsim::BoardBuilder BoardUnderTest() { return Pelix().Channels(1); }
    // What the driver got with the last such request.
    Bytes Received(const std::string& request) { return rig.Cards().LastRecord(0, 0, request); }
    Bytes EventReceived(const std::string& request) {
        return rig.Cards().LastRecord(-1, 0, request);
    }
    // The names of the requests since the journal was cleared.
    std::vector<std::string> Requests() {
        std::vector<std::string> names;
        for (const auto& line : rig.JournalLines())
            if (line.action == "ioctl") names.push_back(line.request);
        return names;
    }
    void RefuseFromNowOn(const std::string& request, int error = EIO) {
        rig.AddFault(Fault{.request = request, .count = -1, .effect = Refuse(error)});
    }

    SimRig rig;
    QV_CHANNEL channel = nullptr;
};

}  // namespace qvtest
