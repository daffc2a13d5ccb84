#include "UsbHost.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace qvsim::usb {
namespace {

namespace fs = std::filesystem;

constexpr unsigned kFreePort = 4;
constexpr unsigned kHighSpeed = 3;
constexpr unsigned kDeviceId = 1;  // any number but 0

std::string FirstLine(const fs::path& path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

// A single write, as these files require. 0 or an errno.
int WriteFile(const std::string& path, const std::string& text) {
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return errno;
    const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const int error = written ? 0 : errno;
    close(fd);
    return error;
}

std::vector<std::string> SortedNames(const fs::path& folder, const std::string& start) {
    std::vector<std::string> names;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(folder, ignored))
        if (entry.path().filename().string().rfind(start, 0) == 0)
            names.push_back(entry.path().filename().string());
    // shorter names first, so that numbers are in order
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return a.size() != b.size() ? a.size() < b.size() : a < b;
    });
    return names;
}

int CardOnBus(const std::string& sound, const std::string& bus) {
    for (const std::string& name : SortedNames(sound, "card")) {
        int number = -1;
        if (std::sscanf(name.c_str(), "card%d", &number) == 1 &&
            FirstLine(fs::path(sound) / name / "usbbus") == bus)
            return number;
    }
    return -1;
}

// No nodes yet while the camera's driver is still making them: its media device comes last.
std::vector<std::string> NodesOf(const fs::path& devices, const std::string& device,
                                 bool hasMedia) {
    std::vector<std::string> nodes;
    bool complete = !hasMedia;
    for (const std::string& interface : SortedNames(devices / device, device + ":")) {
        const fs::path folder = devices / device / interface;
        for (const std::string& node : SortedNames(folder / "video4linux", "video"))
            nodes.push_back("/dev/" + node);
        complete = complete || !SortedNames(folder, "media").empty();
    }
    return complete ? nodes : std::vector<std::string>{};
}

}  // namespace

std::vector<PortStatus> ReadPortStatus(const std::string& text) {
    std::vector<PortStatus> ports;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        int port = 0;
        unsigned status = 0;
        char device[32] = {};
        if (std::sscanf(line.c_str(), "hs %d %u %*u %*x %*u %31s", &port, &status, device) != 3)
            continue;
        const bool named = std::strcmp(device, "0-0") != 0;
        ports.push_back({port, status == kFreePort, named ? device : ""});
    }
    return ports;
}

std::string VhciHost::StatusText(int controller) const {
    std::string path = m_folders.controller + "/status";
    if (controller > 0) path += "." + std::to_string(controller);
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string VhciHost::Attach(int controller, int socket, int& port) {
    const std::string attach = m_folders.controller + "/attach";
    if (access(attach.c_str(), F_OK) != 0)
        return attach + ": " + std::strerror(errno) +
               ": the kernel's virtual host controller is not loaded (modprobe vhci-hcd)";
    const std::vector<PortStatus> ports = ReadPortStatus(StatusText(controller));
    if (ports.empty())
        return "there is no virtual host controller " + std::to_string(controller) +
               ": give the device a lower one in the scenario";
    const auto free = std::find_if(ports.begin(), ports.end(), [this](const PortStatus& status) {
        return status.free && !IsLeaving(status.port);
    });
    if (free == ports.end())
        return "all " + std::to_string(ports.size()) + " ports of virtual host controller " +
               std::to_string(controller) +
               " are taken: detach devices, or give this one another controller in the scenario";
    char line[64];
    std::snprintf(line, sizeof line, "%d %d %u %u", free->port, socket, kDeviceId, kHighSpeed);
    if (const int failed = WriteFile(attach, line)) {
        const bool needsRoot = failed == EACCES || failed == EPERM;
        return attach + ": " + std::strerror(failed) +
               (needsRoot ? ": plugging in devices needs root" : "");
    }
    m_controllerOf[free->port] = controller;
    m_lastDeviceOf.erase(free->port);
    port = free->port;
    return {};
}

void VhciHost::Detach(int port) {
    // Read before: the controller forgets the name of a device at once.
    if (const auto status = StatusOf(port); status && !status->device.empty())
        m_lastDeviceOf[port] = status->device;
    // A port that is already free refuses; that is fine, too.
    WriteFile(m_folders.controller + "/detach", std::to_string(port));
}

std::optional<PortStatus> VhciHost::StatusOf(int port) const {
    const auto known = m_controllerOf.find(port);
    if (known == m_controllerOf.end()) return std::nullopt;
    for (PortStatus& status : ReadPortStatus(StatusText(known->second)))
        if (status.port == port) return std::move(status);
    return std::nullopt;
}

std::optional<Place> VhciHost::Find(int port, bool wantsCard, bool wantsCamera) {
    const std::optional<PortStatus> status = StatusOf(port);
    if (!status || status->device.empty()) return std::nullopt;
    m_lastDeviceOf[port] = status->device;
    const fs::path device = fs::path(m_folders.devices) / status->device;
    const int bus = std::atoi(FirstLine(device / "busnum").c_str());
    const int number = std::atoi(FirstLine(device / "devnum").c_str());
    if (bus <= 0 || number <= 0) return std::nullopt;
    char text[32];
    std::snprintf(text, sizeof text, "%03d/%03d", bus, number);
    Place place{text, wantsCard ? CardOnBus(m_folders.sound, text) : -1, {}};
    if (wantsCamera)
        place.nodes =
            NodesOf(m_folders.devices, status->device, access(m_folders.media.c_str(), F_OK) == 0);
    if ((wantsCard && place.card < 0) || (wantsCamera && place.nodes.empty())) return std::nullopt;
    return place;
}

bool VhciHost::IsFree(int port) {
    const std::optional<PortStatus> status = StatusOf(port);
    return (!status || status->free) && !IsLeaving(port);
}

bool VhciHost::IsLeaving(int port) const {
    const auto last = m_lastDeviceOf.find(port);
    if (last == m_lastDeviceOf.end()) return false;
    return access((m_folders.devices + "/" + last->second).c_str(), F_OK) == 0;
}

}  // namespace qvsim::usb
