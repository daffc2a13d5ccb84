// Handlers of identity and firmware storage. Flash data is copied through a buffer of one sector,
// whatever the size of the request: a process under the preload door must stay small.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "FirmwareImage.h"
#include "Handlers.h"
#include "Hex.h"
#include "QVDriverRecords.h"

namespace qvsim {
namespace {

// Waits as long as the chip would; false as in Call::TakeTime().
bool Busy(Call& call, uint64_t microseconds) {
    return call.TakeTime(std::chrono::microseconds(microseconds));
}

uint64_t Units(uint64_t bytes, uint64_t unit) { return (bytes + unit - 1) / unit; }

bool Has(const Call& call, FaultKind kind) { return EffectOf(call.effects, kind).has_value(); }

void NoteRange(Call& call, uint32_t offset, uint32_t size) {
    call.NoteHex("offset", offset);
    call.NoteNumber("size", size);
}

std::optional<CutPoint> CutOf(const Call& call) {
    const auto value = EffectOf(call.effects, FaultKind::kPowerLoss);
    if (!value) return std::nullopt;
    return static_cast<CutPoint>(*value);
}

uint32_t SizeBeforeCut(const Call& call, uint32_t size) {
    if (Has(call, FaultKind::kHalf)) return size / 2;
    const std::optional<CutPoint> cut = CutOf(call);
    if (!cut) return size;
    if (*cut == CutPoint::kStart) return 0;
    return *cut == CutPoint::kEnd && size > 0 ? size - 1 : size / 2;
}

// A file of the simulation failed, not a card; ranges have been checked before. What was not
// written has no mark, so that no image looks complete.
Answer HostRefuses(Call& call, int error) {
    call.cards->ComplainAboutFlash(*call.channel, errno);
    return Refused(error);
}

bool GarbleAfterCut(Call& call, uint32_t offset, uint32_t done) {
    const std::optional<CutPoint> cut = CutOf(call);
    const bool clean = !cut || *cut == CutPoint::kStart || *cut == CutPoint::kEnd;
    NorFlash& flash = *call.channel->flash;
    return clean || !flash.InRange(offset + done, 1) || flash.Garble(offset + done);
}

// The text up to the end of its field; other fields follow.
template <size_t size>
void FillUp(char (&field)[size]) {
    std::fill(field + strnlen(field, size), field + size, '#');
}

}  // namespace

Answer GetChannelInfo(Call& call) {
    auto& info = call.As<_QVCAP_CHANNEL_INFO>();
    info = call.channel->state->info;
    if (Has(call, FaultKind::kNoEnd)) {
        FillUp(info.familyName);
        FillUp(info.productName);
        FillUp(info.furtherText);
        FillUp(info.boardSerialNumber);
    }
    return Ok();
}

Answer GetFamilyInfo(Call& call) {
    call.As<_QVCAP_PELIX_CAPTURE_INFO>() = call.channel->state->family;
    return Ok();
}

Answer GetFirmwareStorageInfo(Call& call) {
    call.As<_QVCAP_FIRMWARE_STORAGE>() = call.channel->state->storage;
    call.NoteHex("firmware", call.channel->state->storage.firmwareOffset);
    return Ok();
}

Answer EraseFirmwareData(Call& call) {
    const auto [offset, size] = call.As<qv::FirmwareEraseRecord>();
    NoteRange(call, offset, size);
    NorFlash& flash = *call.channel->flash;
    if (!flash.InRange(offset, size)) return Refused(EINVAL);
    const bool whole = offset % NorFlash::kSector == 0 && size % NorFlash::kSector == 0;
    if (call.cards->Ways().strictErase && !whole) return Refused(EINVAL);
    if (!Busy(call, Units(size, NorFlash::kSector) * call.cards->Delays().erasePerSector))
        return Ok();
    const Folder::Lock lock = call.cards->LockFolder();
    const uint32_t done = SizeBeforeCut(call, size);
    if (!flash.Erase(offset, done) || !GarbleAfterCut(call, offset, done))
        return HostRefuses(call, ENOSPC);
    constexpr uint8_t kProgrammed = 0x5A;
    if (Has(call, FaultKind::kNotBlank) && size > 0 && !flash.Program(offset, &kProgrammed, 1))
        return HostRefuses(call, ENOSPC);
    return Ok();
}

Answer WriteFirmwareData(Call& call) {
    const auto [offset, size, address] = call.As<qv::FirmwareDataRecord>();
    NoteRange(call, offset, size);
    NorFlash& flash = *call.channel->flash;
    if (!flash.InRange(offset, size)) return Refused(EINVAL);
    if (!Busy(call, Units(size, NorFlash::kPage) * call.cards->Delays().programPerPage))
        return Ok();
    const Folder::Lock lock = call.cards->LockFolder();
    const auto stuck =
        static_cast<uint8_t>(EffectOf(call.effects, FaultKind::kStuckBits).value_or(0));
    const uint32_t wanted = SizeBeforeCut(call, size);
    uint32_t crc = 0;
    int error = 0;
    uint8_t piece[NorFlash::kSector];
    for (uint32_t done = 0; done < wanted && error == 0;) {
        const uint32_t n = std::min<uint32_t>(wanted - done, sizeof piece);
        if (!call.memory.Read(address + done, piece, n)) {
            error = EFAULT;
        } else {
            crc = Crc32(piece, n, crc);
            if (!flash.Program(offset + done, piece, n, stuck)) return HostRefuses(call, ENOSPC);
        }
        done += n;
    }
    if (error != 0) return Refused(error);
    if (!GarbleAfterCut(call, offset, wanted)) return HostRefuses(call, ENOSPC);
    call.NoteHex("crc", crc);
    // A header that is written at one of its two addresses decides which image is loaded first
    // after power-on.
    const uint32_t main = call.channel->state->storage.firmwareOffset;
    const bool isHeader = offset == main || offset == main + kSafeHeaderDistance;
    if (isHeader && wanted > 0 && !flash.SetBootAddress(offset)) return HostRefuses(call, ENOSPC);
    return Ok();
}

Answer ReadFirmwareData(Call& call) {
    auto& record = call.As<qv::FirmwareDataRecord>();
    NoteRange(call, record.offset, record.size);
    NorFlash& flash = *call.channel->flash;
    if (!flash.InRange(record.offset, record.size)) return Refused(EINVAL);
    if (!Busy(call, Units(record.size, 1024) * call.cards->Delays().readPerKiB)) return Ok();
    const uint32_t wanted =
        std::min(record.size, EffectOf(call.effects, FaultKind::kShortRead).value_or(record.size));
    const auto flip = EffectOf(call.effects, FaultKind::kFlipBit);
    uint8_t piece[NorFlash::kSector];
    for (uint32_t done = 0; done < wanted;) {
        const uint32_t n = std::min<uint32_t>(wanted - done, sizeof piece);
        if (!flash.Read(record.offset + done, piece, n)) return HostRefuses(call, EIO);
        if (flip && *flip / 8 >= done && *flip / 8 < done + n)
            piece[*flip / 8 - done] =
                static_cast<uint8_t>(piece[*flip / 8 - done] ^ 1 << *flip % 8);
        if (!call.memory.Write(record.address + done, piece, n)) return Refused(EFAULT);
        done += n;
    }
    record.size = wanted;
    call.NoteNumber("got", wanted);
    return Ok();
}

}  // namespace qvsim
