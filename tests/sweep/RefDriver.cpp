// The driver's half of the reference.
#include <cerrno>
#include <cstdio>

#include "Reference.h"

namespace qvtest {
namespace {

constexpr uint32_t kSector = 4096;

std::string Hex(uint32_t value) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", value);
    return text;
}

std::string Range(uint32_t offset, uint32_t size) {
    return " offset=" + Hex(offset) + " size=" + std::to_string(size);
}

}  // namespace

RefDriver::Effect RefDriver::Meet(const std::string& name, int board, int channel, uint32_t offset,
                                  uint32_t size) {
    int nth = 1;
    for (const RefCall& call : calls)
        if (call.name == name && call.board == board && call.channel == channel) ++nth;
    calls.push_back({name, board, channel, nth, offset, size});
    Effect effect;
    for (size_t i = 0; i < m_faults.size(); ++i) {
        const qvsim::Fault& fault = m_faults[i];
        if (fault.request != name || (fault.board != -1 && fault.board != board) ||
            (fault.channel != -1 && fault.channel != channel))
            continue;
        if (++m_seen[i] != fault.nth) continue;
        effect = {true, fault.effect.kind, fault.effect.value};
        met.push_back({fault.effect.kind, calls.back()});
    }
    return effect;
}

bool RefDriver::Exists(const std::string& path) const {
    for (const RefChannel& channel : world.channels)
        if (channel.Path() == path) return !channel.gone;
    return false;
}

bool RefDriver::OpenEvents() {
    const Effect effect = Meet("open", -1, -1, 0, 0);
    const bool gone = effect.Is(qvsim::FaultKind::kNodeGone);
    const bool refused = effect.Is(qvsim::FaultKind::kRefuse);
    // The power of the computer, not of one card.
    if (effect.Is(qvsim::FaultKind::kPowerLoss))
        for (const RefChannel& channel : world.channels) world.dead.insert(channel.board);
    Line(std::string("open /dev/qv-event = ") + (gone ? "-1 ENODEV" : refused ? "-1 EBUSY" : "0"));
    return !gone && !refused;
}

bool RefDriver::Open(RefChannel& channel) {
    // The driver knows a vanished node's number no more: nothing counts there.
    if (channel.gone) {
        Line("open " + channel.Path() + " = -1 ENODEV");
        return false;
    }
    const Effect effect = Meet("open", channel.board, channel.channel, 0, 0);
    if (effect.Is(qvsim::FaultKind::kPowerLoss)) world.dead.insert(channel.board);
    if (effect.Is(qvsim::FaultKind::kNodeGone)) channel.gone = true;
    const bool refused = effect.Is(qvsim::FaultKind::kRefuse);
    Line("open " + channel.Path() +
         (channel.gone ? " = -1 ENODEV"
          : refused    ? " = -1 EBUSY"
                       : " = 0"));
    return !channel.gone && !refused;
}

bool RefDriver::Admit(RefChannel& channel, const std::string& name, const Effect& effect) {
    if (effect.Is(qvsim::FaultKind::kNodeGone)) channel.gone = true;
    const bool refused =
        world.dead.count(channel.board) != 0 || effect.Is(qvsim::FaultKind::kRefuse);
    if (!channel.gone && !refused) return true;
    Line("ioctl " + channel.Path() + " " + name + " = -1 " + (channel.gone ? "ENODEV" : "EIO"));
    return false;
}

bool RefDriver::Finish(RefChannel& channel, const std::string& name, const std::string& detail,
                       const Effect& effect) {
    const bool cut = effect.Is(qvsim::FaultKind::kPowerLoss);
    if (cut) world.dead.insert(channel.board);
    Line("ioctl " + channel.Path() + " " + name + detail + (cut ? " = -1 EIO" : " = 0"));
    return !cut;
}

uint32_t RefDriver::Done(const RefChannel& channel, uint32_t offset, uint32_t size,
                         const Effect& effect) {
    if (!effect.Is(qvsim::FaultKind::kPowerLoss)) return size;
    if (effect.value == static_cast<uint32_t>(qvsim::CutPoint::kStart)) return 0;
    if (effect.value == static_cast<uint32_t>(qvsim::CutPoint::kEnd)) return size - 1;
    const Bytes& flash = world.flashes.at(channel.flash);
    const uint32_t begin = (offset + size / 2) / kSector * kSector;
    torn.push_back(
        {channel.flash, begin, Bytes(flash.begin() + begin, flash.begin() + begin + kSector)});
    return size / 2;
}

bool RefDriver::Simple(RefChannel& channel, const std::string& name, const std::string& detail) {
    const Effect effect = Meet(name, channel.board, channel.channel, 0, 0);
    if (!Admit(channel, name, effect)) return false;
    const bool cut = effect.Is(qvsim::FaultKind::kPowerLoss);
    return Finish(channel, name, cut ? "" : detail, effect);
}

bool RefDriver::Erase(RefChannel& channel, uint32_t offset, uint32_t size) {
    const Effect effect = Meet("EraseFirmwareData", channel.board, channel.channel, offset, size);
    if (!Admit(channel, "EraseFirmwareData", effect)) return false;
    Bytes& flash = world.flashes.at(channel.flash);
    const uint32_t end = offset + Done(channel, offset, size, effect);
    if (end > offset) {  // whole sectors
        for (uint32_t at = offset / kSector * kSector; at < end; ++at) flash.at(at) = 0xFF;
        for (uint32_t at = end; at % kSector != 0; ++at) flash.at(at) = 0xFF;
    }
    if (effect.Is(qvsim::FaultKind::kNotBlank)) flash.at(offset) = 0x5A;
    return Finish(channel, "EraseFirmwareData", Range(offset, size), effect);
}

bool RefDriver::Write(RefChannel& channel, uint32_t offset, const Bytes& data) {
    const auto size = static_cast<uint32_t>(data.size());
    const Effect effect = Meet("WriteFirmwareData", channel.board, channel.channel, offset, size);
    if (!Admit(channel, "WriteFirmwareData", effect)) return false;
    const uint32_t stuck = effect.Is(qvsim::FaultKind::kStuckBits) ? effect.value : 0;
    Bytes& flash = world.flashes.at(channel.flash);
    const uint32_t done = Done(channel, offset, size, effect);
    for (uint32_t i = 0; i < done; ++i)
        flash.at(offset + i) = static_cast<uint8_t>(flash.at(offset + i) & (data[i] | stuck));
    return Finish(channel, "WriteFirmwareData", Range(offset, size), effect);
}

std::optional<Bytes> RefDriver::Read(RefChannel& channel, uint32_t offset, uint32_t size) {
    const Effect effect = Meet("ReadFirmwareData", channel.board, channel.channel, offset, size);
    if (!Admit(channel, "ReadFirmwareData", effect)) return {};
    const Bytes& flash = world.flashes.at(channel.flash);
    Bytes data(flash.begin() + offset, flash.begin() + offset + size);
    if (effect.Is(qvsim::FaultKind::kShortRead) && effect.value < size) data.resize(effect.value);
    if (effect.Is(qvsim::FaultKind::kFlipBit))
        data.at(effect.value / 8) =
            static_cast<uint8_t>(data.at(effect.value / 8) ^ 1 << effect.value % 8);
    const bool cut = effect.Is(qvsim::FaultKind::kPowerLoss);
    const std::string detail = Range(offset, size) + " got=" + std::to_string(data.size());
    if (!Finish(channel, "ReadFirmwareData", cut ? "" : detail, effect)) return {};
    return data;
}

}  // namespace qvtest
