// Handlers of OSD images, which are reference-counted, and of pinned video buffers.
#include <cerrno>

#include "Handlers.h"
#include "QVDriverRecords.h"

namespace qvsim {

Answer CreateImage(Call& call) {
    auto& record = call.As<qv::CreateImageRecord>();
    call.NoteNumber("width", record.width);
    call.NoteNumber("height", record.height);
    if (record.width == 0 || record.height == 0) return Refused(EINVAL);
    const uint64_t image = call.cards->ImageHandles().Take();
    call.channel->images[image] = 1;
    record.image = image;
    call.NoteHex("image", image);
    return Ok();
}

Answer OpenImage(Call& call) {
    auto& record = call.As<qv::ImageReferenceRecord>();
    call.NoteHex("image", record.image);
    const auto image = call.channel->images.find(uint64_t{record.image});
    if (image == call.channel->images.end()) return Refused(EINVAL);
    record.referenceCount = ++image->second;
    call.NoteNumber("references", record.referenceCount);
    return Ok();
}

Answer CloseImage(Call& call) {
    auto& record = call.As<qv::ImageReferenceRecord>();
    call.NoteHex("image", record.image);
    const auto image = call.channel->images.find(uint64_t{record.image});
    if (image == call.channel->images.end()) return Refused(EINVAL);
    record.referenceCount = --image->second;
    call.NoteNumber("references", record.referenceCount);
    if (image->second > 0) return Ok();
    call.cards->ImageHandles().Give(image->first);
    call.channel->images.erase(image);
    return Ok();
}

Answer PinVideoBuffer(Call& call) {
    const auto [address, size, access] = call.As<qv::PinVideoBufferRecord>();
    call.NoteNumber("size", static_cast<int64_t>(size));
    call.NoteNumber("access", static_cast<int64_t>(access));
    if (address == 0) return Refused(EFAULT);
    if (size == 0 || access != 3) return Refused(EINVAL);
    if (!call.channel->pinned.emplace(address, size).second) return Refused(EBUSY);
    return Ok();
}

Answer UnpinVideoBuffer(Call& call) {
    const uint64_t address = call.As<uint64_t>();
    return call.channel->pinned.erase(address) ? Ok() : Refused(EINVAL);
}

}  // namespace qvsim
