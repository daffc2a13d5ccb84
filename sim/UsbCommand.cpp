// `qvcap-sim usb`: the USB devices of a scenario on the kernel's virtual host controller, until
// SIGTERM or SIGINT.
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "Commands.h"
#include "Scenario.h"
#include "UsbServer.h"

namespace qvsim {
namespace {

usb::PluggedSpec Spec(const UsbPlan& plan) {
    usb::PluggedSpec spec;
    spec.controller = plan.controller;
    spec.device.product = plan.product;
    spec.device.serial = plan.serial;
    for (const std::string& name : *plan.captures) spec.device.streams.push_back({name, true});
    for (const std::string& name : *plan.playbacks) spec.device.streams.push_back({name, false});
    for (const CameraSize& size : *plan.camera)
        spec.device.sizes.push_back({size.width, size.height, size.fps});
    return spec;
}

}  // namespace

int UsbCommand(const std::string& scenario, const std::string& played, const std::string& state) {
    CardsPlan plan;
    std::string error = scenario.empty()
                            ? ParseScenario(kDefaultScenario, "default-scenario.toml", plan)
                            : ReadScenario(scenario, plan);
    if (!error.empty()) return Fail(error);
    if (!played.empty() && !std::filesystem::is_directory(played))
        return Fail(played + ": is no folder; make it, or leave --played away");
    if (!state.empty() && !std::filesystem::is_directory(state))
        return Fail(state + ": is no folder; make it, or leave --state away");

    const int stop = SignalsThatEnd();  // the devices are unplugged before the end
    if (stop < 0) return Fail(std::string("usb: ") + std::strerror(errno), kCannotServe);
    sigset_t
        reading;  // reads orders from a terminal that may belong to another program at the moment
    sigemptyset(&reading);
    sigaddset(&reading, SIGTTIN);
    sigprocmask(SIG_BLOCK, &reading, nullptr);

    std::vector<usb::PluggedSpec> specs;
    for (const UsbPlan& device : plan.usbDevices) {
        specs.push_back(Spec(device));
        if (device.control) {
            const auto number = static_cast<int>(specs.size()) - 1;
            std::unique_ptr<usb::ControlModel> control;
            error = usb::ControlModel::Make(device, number, state, control);
            if (!error.empty()) return Fail("usb: " + error, kCannotServe);
            specs.back().device.control = std::move(control);
        } else if (specs.back().device.streams.empty() && specs.back().device.sizes.empty()) {
            return Fail("usb: " + device.serial + " has neither sound, camera nor control: '" +
                            device.product +
                            "' is no model known here, name captures, playbacks, camera or control",
                        kBadInput);
        }
    }
    const auto report = [](const std::string& line) {
        std::printf("%s\n", line.c_str());
        std::fflush(stdout);
    };
    usb::VhciHost host;
    usb::UsbServer server(std::move(specs), host, played, report);
    error = server.Start(stop);
    if (error.empty() && !server.Stopped()) report("ready");
    if (error.empty()) error = server.Run(STDIN_FILENO);
    close(stop);
    return error.empty() ? 0 : Fail("usb: " + error, kCannotServe);
}

}  // namespace qvsim
