// The loadable form of the transport in the process, for a program that uses the shared library:
// the USB devices of the scenario that QVSIM_USB_SCENARIO names, kept in the folder
// QVSIM_USB_STATE. In any other program it does nothing.
#include <cstdio>
#include <cstdlib>

#include "ProcessTransport.h"
#include "Scenario.h"

// Not linked with the library, because only programs that have it matter.
extern "C" __attribute__((weak)) QV_RESULT QVSetUSBTransport(const QV_USB_TRANSPORT*, void*);

namespace qvsim::usb {
namespace {

[[noreturn]] void Fail(const std::string& error) {
    std::fprintf(stderr, "qvsim-usb: %s\n", error.c_str());
    std::_Exit(2);
}

__attribute__((constructor)) void Supply() {
    if (!QVSetUSBTransport) return;
    const char* scenario = std::getenv("QVSIM_USB_SCENARIO");
    const char* folder = std::getenv("QVSIM_USB_STATE");
    if (!scenario || !folder) Fail("QVSIM_USB_SCENARIO and QVSIM_USB_STATE name file and folder");
    CardsPlan plan;
    if (std::string error = ReadScenario(scenario, plan); !error.empty()) Fail(error);
    // Never destroyed: exit handlers of the program may close channels.
    auto* transport = new ProcessTransport;
    if (std::string error = transport->Fill(plan.usbDevices, folder); !error.empty()) Fail(error);
    if (QVSetUSBTransport(&ProcessTransport::Table(), transport) != QV_RESULT_OK)
        Fail("the library takes no transport any more");
}

}  // namespace
}  // namespace qvsim::usb
