#include "UsbDescriptors.h"

namespace qvsim::usb {

void AppendFields(Bytes& out, const std::vector<Field>& fields) {
    for (const Field& field : fields)
        for (int i = 0; i < field.size; ++i)
            out.push_back(static_cast<uint8_t>(field.value >> 8 * i));
}

void AppendDescriptor(Bytes& out, uint8_t type, const std::vector<Field>& fields) {
    const size_t start = out.size();
    out.push_back(0);
    out.push_back(type);
    AppendFields(out, fields);
    out[start] = static_cast<uint8_t>(out.size() - start);
}

void AppendWithTotal(Bytes& out, Bytes inner, size_t offset) {
    inner[offset] = static_cast<uint8_t>(inner.size());
    inner[offset + 1] = static_cast<uint8_t>(inner.size() >> 8);
    out.insert(out.end(), inner.begin(), inner.end());
}

Bytes StringDescriptor(const std::string& text) {
    Bytes out;
    std::vector<Field> letters;
    for (const char letter : text) letters.push_back(Half(static_cast<uint8_t>(letter)));
    AppendDescriptor(out, kStringDescriptor, letters);
    return out;
}

Bytes LanguagesDescriptor() {
    Bytes out;
    AppendDescriptor(out, kStringDescriptor, {Half(0x0409)});
    return out;
}

}  // namespace qvsim::usb
