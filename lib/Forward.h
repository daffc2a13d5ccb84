// How the public functions call the channel objects: argument checks and forwarding, nothing else.
//
// A null channel is refused everywhere, and an operation that only PCIe channels have fails on a
// channel of another kind: the code asks the object for its kind, and never casts unchecked.
#pragma once

#include <utility>

#include "pcie/QVCaptureBase.h"

namespace qv {

inline IQVCaptureDevice* AsDevice(QV_CHANNEL channel) {
    return static_cast<IQVCaptureDevice*>(channel);
}

// Calls an operation that both kinds of channel have.
template <class... Parameters, class... Arguments>
QV_RESULT Device(QV_CHANNEL channel, QV_RESULT (IQVCaptureDevice::*operation)(Parameters...),
                 Arguments&&... arguments) {
    if (channel == nullptr) return QV_RESULT_BAD_ARGUMENT;
    return (AsDevice(channel)->*operation)(std::forward<Arguments>(arguments)...);
}

// Calls an operation that only PCIe channels have.
template <class... Parameters, class... Arguments>
QV_RESULT Pcie(QV_CHANNEL channel, QV_RESULT (CQVCaptureBase::*operation)(Parameters...),
               Arguments&&... arguments) {
    if (channel == nullptr) return QV_RESULT_BAD_ARGUMENT;
    CQVCaptureBase* pcie = AsDevice(channel)->AsPcieChannel();
    return pcie == nullptr ? QV_RESULT_FAILED
                           : (pcie->*operation)(std::forward<Arguments>(arguments)...);
}

// The same for operations that return a handle; 0 means none.
template <class... Parameters, class... Arguments>
unsigned long long Pcie(QV_CHANNEL channel,
                        unsigned long long (CQVCaptureBase::*operation)(Parameters...),
                        Arguments&&... arguments) {
    CQVCaptureBase* pcie = channel == nullptr ? nullptr : AsDevice(channel)->AsPcieChannel();
    return pcie == nullptr ? 0 : (pcie->*operation)(std::forward<Arguments>(arguments)...);
}

}  // namespace qv
