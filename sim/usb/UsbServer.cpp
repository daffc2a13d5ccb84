#include "UsbServer.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <utility>

namespace qvsim::usb {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kLongestOrder = 256;
constexpr std::streamoff kMostPlayed = 16 << 20;  // bytes kept of each stream
constexpr std::chrono::seconds kDetachPatience{20};
constexpr int kSendSeconds = 5;  // a kernel that reads nothing for so long is gone
constexpr Micros kOrdersPause =
    500'000;  // until the next attempt on a terminal that other programs use now

Micros Now() {
    return std::chrono::duration_cast<std::chrono::microseconds>(Clock::now().time_since_epoch())
        .count();
}

}  // namespace

UsbServer::UsbServer(std::vector<PluggedSpec> specs, UsbHost& host, std::string played,
                     Report report)
    : m_host(host), m_played(std::move(played)), m_report(std::move(report)) {
    for (PluggedSpec& spec : specs) {
        m_plugs.emplace_back();
        m_plugs.back().spec = std::move(spec);
    }
}

UsbServer::~UsbServer() {
    for (Plug& plug : m_plugs) Unplug(plug);
}

AudioFunction::Listener UsbServer::ListenerFor(const DeviceSpec& spec) const {
    if (m_played.empty()) return [](const std::string&, const uint8_t*, size_t) {};
    const std::string start = m_played + "/" + spec.serial + "-";
    const auto files = std::make_shared<std::map<std::string, std::ofstream>>();
    return [start, files](const std::string& stream, const uint8_t* data, size_t size) {
        const auto [file, isNew] = files->try_emplace(stream);
        if (isNew) file->second.open(start + stream + ".raw", std::ios::binary | std::ios::app);
        if (file->second.tellp() > kMostPlayed) return;
        file->second.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
        file->second.flush();
    };
}

// ---- plugging in and out

std::string UsbServer::Start(int stop) {
    m_stop = stop;
    if (m_plugs.empty()) return "there is no device to plug in: the scenario has no [[usb]]";
    for (Plug& plug : m_plugs)
        if (std::string error = PlugIn(plug); !error.empty()) return m_stopped ? "" : error;
    return {};
}

std::string UsbServer::PlugIn(Plug& plug) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        return std::string("no socket for a device: ") + std::strerror(errno);
    const timeval limit{kSendSeconds, 0};
    setsockopt(ends[0], SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    plug.port = -1;
    std::string error = m_host.Attach(plug.spec.controller, ends[1], plug.port);
    close(ends[1]);  // the kernel has its own reference
    if (!error.empty()) {
        close(ends[0]);
        return error;
    }
    plug.socket = ends[0];
    if (plug.spec.device.control && plug.plugged) plug.spec.device.control->PowerCycle();
    plug.plugged = true;
    plug.device = std::make_unique<EmulatedDevice>(plug.spec.device, ListenerFor(plug.spec.device));
    // One order at a time: later ones wait.
    const int orders = std::exchange(m_orders, -1);
    error = Announce(plug);
    m_orders = orders;
    return error;
}

// Serves until the kernel has the device's sound card and nodes, so that those of the next device
// come after them.
std::string UsbServer::Announce(Plug& plug) {
    const DeviceSpec& spec = plug.spec.device;
    const bool card = !spec.streams.empty();
    const bool camera = !spec.sizes.empty();
    Clock::time_point end = Clock::now() + patience;
    while (plug.device) {
        // On a busy machine the kernel takes long; as long as it asks, it is at work.
        const bool asked = std::exchange(plug.asked, false);
        if (asked) end = Clock::now() + patience;
        if (plug.device->Configured())
            if (const std::optional<Place> place = m_host.Find(plug.port, card, camera)) {
                std::string line =
                    "plugged " + spec.serial + ": " + spec.product + ", bus " + place->bus;
                if (card) line += ", sound card " + std::to_string(place->card);
                for (const std::string& node : place->nodes) line += ", " + node;
                m_report(line);
                return {};
            }
        if (!asked && Clock::now() >= end) {
            const char* missing = plug.device->Configured()
                                      ? "the kernel made no sound card or video node of it: load "
                                        "the drivers first (modprobe snd-usb-audio uvcvideo)"
                                      : "the kernel has not configured it";
            return spec.serial + ": " + missing;
        }
        if (!ServeOnce(5)) break;
        if (m_stopped) return spec.serial + ": ended while it was plugged in";
    }
    return spec.serial + ": the kernel has given the device up";
}

void UsbServer::Unplug(Plug& plug) {
    if (!plug.device) return;
    m_host.Detach(plug.port);
    close(plug.socket);
    plug.socket = -1;
    plug.device.reset();
}

// ---- serving

bool UsbServer::Send(Plug& plug, const Bytes& bytes) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t n = send(plug.socket, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

void UsbServer::ServeSocket(Plug& plug) {
    uint8_t bytes[65536];
    const ssize_t n = recv(plug.socket, bytes, sizeof bytes, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
    plug.asked = true;
    Bytes out;
    const bool understood =
        n > 0 && plug.device->Receive(bytes, static_cast<size_t>(n), Now(), out);
    const bool sent = understood && Send(plug, out);
    if (const auto& control = plug.spec.device.control; control && !control->Present())
        return GiveUp(plug, "gone");
    if (sent) return;
    GiveUp(plug, n > 0 && !understood ? "not understood" : "given up by the kernel");
}

void UsbServer::GiveUp(Plug& plug, const char* why) {
    Unplug(plug);
    m_report(std::string(why) + ", unplugged " + plug.spec.device.serial);
}

bool UsbServer::OrdersRest() const { return m_orders >= 0 && Now() < m_ordersFrom; }

int UsbServer::TimeToNext() const {
    Micros next = OrdersRest() ? m_ordersFrom : kNever;
    for (const Plug& plug : m_plugs)
        if (plug.device) next = std::min(next, plug.device->NextDue());
    if (next == kNever) return -1;
    return static_cast<int>(std::clamp<Micros>((next - Now() + 999) / 1000, 0, 1000));
}

bool UsbServer::ServeOnce(int timeout) {
    std::vector<pollfd> waiting{{m_stop, POLLIN, 0}, {OrdersRest() ? -1 : m_orders, POLLIN, 0}};
    for (const Plug& plug : m_plugs) waiting.push_back({plug.socket, POLLIN, 0});  // -1: left out
    const int next = TimeToNext();
    if (next >= 0 && (timeout < 0 || next < timeout)) timeout = next;
    if (poll(waiting.data(), waiting.size(), timeout) < 0 && errno != EINTR) return false;
    m_stopped = m_stopped || waiting[0].revents != 0;
    for (size_t i = 0; i < m_plugs.size(); ++i) {
        if (waiting[i + 2].revents != 0) ServeSocket(m_plugs[i]);
        if (!m_plugs[i].device) continue;
        Bytes out;
        m_plugs[i].device->Advance(Now(), out);
        if (!Send(m_plugs[i], out)) GiveUp(m_plugs[i], "given up by the kernel");
    }
    if (waiting[1].revents != 0) TakeOrders();
    return true;
}

std::string UsbServer::Run(int orders) {
    m_orders = orders;
    std::string error;
    while (!m_stopped)
        if (!ServeOnce(-1)) {
            error = std::string("waiting failed: ") + std::strerror(errno);
            break;
        }
    for (Plug& plug : m_plugs) Unplug(plug);
    const Clock::time_point end = Clock::now() + kDetachPatience;
    for (const Plug& plug : m_plugs)
        while (error.empty() && plug.port >= 0 && !m_host.IsFree(plug.port)) {
            if (Clock::now() >= end)
                error = plug.spec.device.serial + ": the kernel still holds its port " +
                        std::to_string(plug.port);
            poll(nullptr, 0, 10);
        }
    return error;
}

// ---- orders

void UsbServer::TakeOrders() {
    char text[256];
    const ssize_t n = read(m_orders, text, sizeof text);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) return;
    // Input on a terminal is not for background programs; this one may come to the foreground
    // again.
    if (n < 0 && errno == EIO) {
        m_ordersFrom = Now() + kOrdersPause;
        return;
    }
    if (n <= 0) {
        m_orders = -1;  // no more orders will come; the devices stay
        return;
    }
    for (const char letter : std::string(text, static_cast<size_t>(n))) {
        if (letter != '\n') {
            if (m_order.size() < kLongestOrder) m_order += letter;
            continue;
        }
        std::string line;
        std::swap(line, m_order);
        Obey(line);
    }
}

void UsbServer::Obey(const std::string& line) {
    const size_t space = line.find(' ');
    const std::string verb = line.substr(0, space);
    const std::string serial = space == std::string::npos ? "" : line.substr(space + 1);
    const auto plug = std::find_if(m_plugs.begin(), m_plugs.end(), [&](const Plug& entry) {
        return entry.spec.device.serial == serial;
    });
    if ((verb != "plug" && verb != "unplug") || plug == m_plugs.end())
        return m_report("not understood: '" + line +
                        "'; orders are `plug SERIAL` and `unplug SERIAL`");
    if ((verb == "plug") == (plug->device != nullptr))
        return m_report(serial + " is " + verb + "ged already");
    if (verb == "plug") {
        if (const std::string error = PlugIn(*plug); !error.empty()) {
            Unplug(*plug);
            m_report("not plugged, " + error);
        }
        return;
    }
    Unplug(*plug);
    m_report("unplugged " + serial);
}

}  // namespace qvsim::usb
