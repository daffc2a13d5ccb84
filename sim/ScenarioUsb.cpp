// USB devices of a scenario: sound, cameras and control. Their transfers' faults are in
// ScenarioFaults.cpp; what a product has by default, CompleteLastUsb() knows.
#include <string>
#include <vector>

#include "ScenarioParts.h"
#include "TomlTable.h"

namespace qvsim {
namespace {

std::vector<std::string> ReadNames(const toml::node& node, const char* key) {
    std::vector<std::string> names;
    const toml::array* array = node.as_array();
    if (!array) throw TomlMistake(node, std::string(key) + " is a list of texts");
    for (const toml::node& name : *array) names.push_back(TomlTable::TextOf(name, key));
    return names;
}

CameraSize ReadSize(const toml::node& node) {
    const TomlTable table(TomlTableOf(node, "camera"), {"width", "height", "fps"});
    CameraSize size;
    table.Integer("width", size.width, 2, 4096);
    table.Integer("height", size.height, 2, 4096);
    if (const toml::node* fps = table.Find("fps")) {
        const toml::array* array = fps->as_array();
        if (!array) throw TomlMistake(*fps, "fps is a list of whole numbers");
        size.fps.clear();
        for (const toml::node& rate : *array)
            size.fps.push_back(static_cast<int>(TomlTable::IntegerOf(rate, "fps", 1, 240)));
    }
    return size;
}

UsbControl ReadUsbControl(const toml::node& node) {
    const TomlTable table(TomlTableOf(node, "control"),
                          {"firmware", "golden", "stored_code", "flash_size", "firmware_offset",
                           "busy_polls", "fault"});
    UsbControl control;
    table.Version("firmware", control.firmware);
    control.golden = control.firmware;
    table.Version("golden", control.golden);
    table.Integer("stored_code", control.storedCode, 0, 0xFFFF);
    table.Integer("flash_size", control.flashSize, 4 * NorFlash::kSector, 64 << 20);
    table.Integer("firmware_offset", control.firmwareOffset, 0, 64 << 20);
    table.Integer("busy_polls", control.busyPolls, 0, 1000);
    ForEachToml(table, "fault",
                [&](const toml::node& e) { control.faults.push_back(ReadUsbFault(e)); });
    return control;
}

}  // namespace

UsbPlan ReadUsbDevice(const toml::node& node) {
    const TomlTable table(TomlTableOf(node, "usb"),
                          {"product", "serial", "hardware", "product_code", "controller",
                           "captures", "playbacks", "camera", "control"});
    UsbPlan device;
    table.Text("product", device.product);
    table.Text("serial", device.serial);
    table.Text("hardware", device.hardware);
    table.Integer("product_code", device.productCode, 0, 0xFFFF);
    table.Integer("controller", device.controller, 0, 15);
    if (const toml::node* names = table.Find("captures"))
        device.captures = ReadNames(*names, "captures");
    if (const toml::node* names = table.Find("playbacks"))
        device.playbacks = ReadNames(*names, "playbacks");
    if (const toml::node* control = table.Find("control"))
        device.control = ReadUsbControl(*control);
    if (table.Find("camera")) device.camera.emplace();
    ForEachToml(table, "camera",
                [&](const toml::node& e) { device.camera->push_back(ReadSize(e)); });
    return device;
}

}  // namespace qvsim
