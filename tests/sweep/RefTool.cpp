// The tool's half of the reference: one straight run.
#include <algorithm>
#include <cstdio>

#include "Reference.h"
#include "tool/ToolTexts.h"

namespace qvtest {
namespace {

constexpr uint32_t kChunk = 65536;

uint32_t U16(const Bytes& bytes, size_t at) {
    return bytes.at(at) | static_cast<uint32_t>(bytes.at(at + 1)) << 8;
}
uint32_t U32(const Bytes& bytes, size_t at) { return U16(bytes, at) | U16(bytes, at + 2) << 16; }

template <typename... Values>
std::string Text(const char* format, Values... values) {
    char text[512];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

std::string Dotted(uint32_t version) { return Text("%u.%u", version >> 16, version & 0xFFFF); }

struct Section {
    std::string name;
    uint32_t address = 0;
    Bytes data;
    bool Clears() const {
        return name.find("Factory.CLR.") != name.npos || name.find("Upgrade.CLR") != name.npos;
    }
    bool OfUpgradeImage() const { return name.substr(0, 8) == "Upgrade."; }
};

struct Listed {
    RefChannel* channel = nullptr;
    std::string current, target;
    bool safe = false;
    bool need = false;
};

class Tool {
  public:
    Tool(RefDriver& driver, const Bytes& file, const RefOptions& options)
        : m_driver(driver), m_options(options) {
        const size_t length = U16(file, 10);
        m_header.assign(file.begin(), file.begin() + static_cast<ptrdiff_t>(length));
        m_version = U32(file, 16);
        size_t at = length;
        for (size_t i = 0; i < file.at(156); ++i) {
            const size_t entry = 157 + 28 * i;
            Section section;
            for (size_t k = 0; k < 16 && file.at(entry + k) != 0; ++k)
                section.name += static_cast<char>(file.at(entry + k));
            section.address = U32(file, entry + 16);
            const uint32_t size = U32(file, entry + 20);
            section.data.assign(file.begin() + static_cast<ptrdiff_t>(at),
                                file.begin() + static_cast<ptrdiff_t>(at + size));
            at += size;
            m_sections.push_back(section);
        }
    }

    RefRun Run() {
        m_events = m_driver.OpenEvents();
        Enumerate();
        Enumerate();
        const int result = BuildList();
        if (result == 1 || result == 2) {
            m_run.output +=
                "device " + m_options.device.value_or("(null)") +
                (result == 1 ? " isn't a pelix or lumo capture device\n" : " doesn't exit\n");
            return Leave(255);
        }
        if (m_list.empty()) {
            m_run.output += Text("total 0, need upgrade %d\n", m_needs);
            return Leave(0);
        }
        PrintTable();
        for (size_t i = 0; i < m_list.size(); ++i) Upgrade(i);
        m_run.output += Text("\ntotal %d,  success %d,  fail %d,  skip %d,  cancel 0\n",
                             static_cast<int>(m_list.size()), m_success, m_fail, m_skip);
        Leave(0);
        if (m_fail == 0 && m_success > 0) m_run.output += kPowerOffQuestion + "\n";
        return m_run;
    }

  private:
    RefRun Leave(int status) {
        if (m_events) m_driver.CloseEvents();
        m_run.status = status;
        return m_run;
    }

    void Enumerate() {
        m_known.clear();
        for (RefChannel& channel : m_driver.world.channels) {
            if (!m_driver.Open(channel)) continue;
            if (m_driver.Simple(channel, "GetChannelInfo") &&
                m_driver.Simple(channel, "GetFamilyInfo"))
                m_known.push_back(&channel);
            m_driver.Close(channel);
        }
    }

    RefChannel* Known(const std::string& path) {
        for (RefChannel* channel : m_known)
            if (channel->Path() == path) return channel;
        return nullptr;
    }

    int BuildList() {
        if (m_options.device && m_options.device->find(':') == std::string::npos) {
            if (const int result = Inspect(*m_options.device)) return m_list.clear(), result;
            return 0;
        }
        std::set<int> lumoBoards;
        for (RefChannel* channel : m_known) {
            if (m_options.device &&
                *m_options.device != Text("%d:%d", channel->board, channel->channel))
                continue;
            if (channel->lumo && !lumoBoards.insert(channel->board).second) continue;
            if (const int result = Inspect(channel->Path())) return m_list.clear(), result;
        }
        return 0;
    }

    int Inspect(const std::string& path) {
        if (!m_driver.Exists(path)) return 2;
        RefChannel* channel = Known(path);
        if (!channel) return 1;
        if (!m_driver.Open(*channel)) return 5;
        Listed record;
        record.channel = channel;
        record.current = Dotted(channel->version);
        const int result = Compare(*channel, &record);
        if (result == kNoPackage) {  // stays open
            m_list.push_back(record);
            return 0;
        }
        m_driver.Close(*channel);
        if (result == 0) m_list.push_back(record);
        return result;
    }

    static constexpr int kNoPackage = -1;

    int Compare(RefChannel& channel, Listed* record) {
        if (!m_driver.Simple(channel, "GetChannelInfo")) return 5;
        if (!m_driver.Simple(channel, "GetChannelInfo")) return kNoPackage;
        record->target = Dotted(m_version);
        record->need = channel.version < m_version;
        m_needs += record->need;
        if (!m_driver.Simple(channel, "GetFirmwareStorageInfo", StorageDetail(channel))) return 5;
        const auto stored = m_driver.Read(channel, channel.firmware, 157);
        if (!stored || stored->size() != 157) return 5;
        const uint32_t reference = U32(*stored, 16) == channel.version ? U16(*stored, 8) : 0;
        record->safe = U16(m_header, 8) == reference && reference != 1;
        return 0;
    }

    static std::string StorageDetail(const RefChannel& channel) {
        return Text(" firmware=0x%x", channel.firmware);
    }

    static std::string Name(const RefChannel& channel) {
        return Text("%02d:%02d %s", channel.board, channel.channel, channel.product.c_str());
    }

    void PrintTable() {
        m_run.output +=
            kWarning +
            Text("total %d  need upgrade %d\n", static_cast<int>(m_list.size()), m_needs) +
            kTableHeader;
        for (const Listed& record : m_list)
            m_run.output +=
                Text("%-30s |%-15s |%-15c |%-15s |%-15s\n", Name(*record.channel).c_str(),
                     record.current.c_str(), 'A', record.target.c_str(),
                     record.need ? "Need upgrade" : "Not Need upgrade");
        m_run.output += "\n";
    }

    void Upgrade(size_t i) {
        const Listed& record = m_list[i];
        const std::string mode = record.safe ? "Safe upgrade" : "Upgrade";
        const std::string name =
            Text("[%d/%d] [%s]  ", static_cast<int>(i + 1), static_cast<int>(m_list.size()),
                 Name(*record.channel).c_str());
        const std::string line =
            "\r" + name + mode + " from " + record.current + " to " + record.target;
        const bool open = m_driver.Open(*record.channel);
        m_percentage = 0;
        const int result = open ? UpgradeOpened(*record.channel, name + mode, record.safe) : 0;
        switch (result) {
            case 0:
                m_run.output += Clear(80) + line + " error (unknow reason).";
                break;
            case 2:
                m_run.output += "\r" + name + "Needn't upgrade";
                break;
            case 4:
                m_run.output += Clear(80) + line + Failed("erasing");
                break;
            case 6:
                m_run.output += Clear(80) + line + Failed("writting");
                break;
            case 9:
                m_run.output += Clear(80) + line + Failed("verifying");
                break;
            case 16:
                m_run.output += Clear(80) + line + " successfully.";
                break;
            default:
                break;
        }
        m_success += result == 16;
        m_skip += result == 2;
        m_fail += result == 0 || result == 4 || result == 6 || result == 9;
        if (open) m_driver.Close(*record.channel);
        m_run.output += "\n";
    }

    std::string Failed(const char* doing) const {
        return Text(" error (%s at %u%%).", doing, m_percentage);
    }

    int UpgradeOpened(RefChannel& channel, const std::string& announcement, bool safe) {
        if (!m_driver.Simple(channel, "GetChannelInfo")) return 0;
        if (!m_driver.Simple(channel, "GetChannelInfo")) return 1;
        if (!m_driver.Simple(channel, "GetFirmwareStorageInfo", StorageDetail(channel))) return 0;
        if (!m_options.force && channel.version >= m_version) return 2;
        m_run.output +=
            announcement + " from " + Dotted(channel.version) + " to " + Dotted(m_version) + "   ";
        const uint32_t address = channel.firmware + (safe ? 4096 : 0);
        std::vector<Section> chosen;
        m_total = static_cast<uint32_t>(m_header.size());
        for (const Section& section : m_sections) {
            if (section.OfUpgradeImage() != safe) continue;
            chosen.push_back(section);
            m_total += static_cast<uint32_t>(section.data.size());
        }
        if (!EraseAll(channel, address, chosen)) return 4;
        if (!WriteAll(channel, address, chosen)) return 6;
        if (!VerifyAll(channel, address, chosen)) return 9;
        if (m_driver.Simple(channel, "SetPostReconfig", " value=200")) return 16;
        m_run.output += "Set post reconfig failed";
        return 10;
    }

    // --- the three stages -------------------------------------------------------------------
    void Begin(const char* format) {
        m_format = format;
        m_done = 0;
        Show();
    }
    void Show() {
        m_percentage = m_done * 100 / m_total;
        m_run.output += Text(m_format, static_cast<int>(m_percentage));
    }
    void Advance(uint32_t bytes, size_t columns) {
        m_done += bytes;
        m_run.output += Clear(columns);
        Show();
    }
    static uint32_t ChunkAt(const Section& section, uint32_t offset) {
        return std::min(static_cast<uint32_t>(section.data.size()) - offset, kChunk);
    }
    static Bytes DataAt(const Section& section, uint32_t offset) {
        const auto from = section.data.begin() + offset;
        return Bytes(from, from + ChunkAt(section, offset));
    }
    static uint32_t Size(const Section& section) {
        return static_cast<uint32_t>(section.data.size());
    }
    bool Fail(const std::string& clears) {
        m_run.output += clears;
        return false;
    }

    bool EraseAll(RefChannel& channel, uint32_t address, const std::vector<Section>& chosen) {
        Begin("(Erasing ------------- %2d%%)");
        const auto length = static_cast<uint32_t>(m_header.size());
        if (!m_driver.Erase(channel, address, length)) return Fail(Clear(28));
        Advance(length, 28);
        for (const Section& section : chosen) {
            for (uint32_t at = 0; at < Size(section); at += kChunk) {
                if (!m_driver.Erase(channel, section.address + at, ChunkAt(section, at)))
                    return Fail(Clear(28) + Clear(28));
                Advance(ChunkAt(section, at), 27);
            }
            if (!section.Clears()) continue;
            for (uint32_t at = 0; at < Size(section); at += kChunk)
                if (m_driver.Read(channel, section.address + at, ChunkAt(section, at)) !=
                    Bytes(ChunkAt(section, at), 0xFF))
                    return Fail(Clear(28) + Clear(28));
        }
        m_run.output += Clear(28);
        return true;
    }

    bool WriteAll(RefChannel& channel, uint32_t address, const std::vector<Section>& chosen) {
        Begin("(Writting ------------- %2d%%)");
        if (!m_driver.Write(channel, address, m_header)) return Fail(Clear(28));
        Advance(static_cast<uint32_t>(m_header.size()), 28);
        for (const Section& section : chosen) {
            if (section.Clears()) continue;
            for (uint32_t at = 0; at < Size(section); at += kChunk) {
                if (!m_driver.Write(channel, section.address + at, DataAt(section, at)))
                    return Fail(Clear(28) + Clear(28));
                Advance(ChunkAt(section, at), 28);
            }
        }
        m_run.output += Clear(28);
        return true;
    }

    bool VerifyAll(RefChannel& channel, uint32_t address, const std::vector<Section>& chosen) {
        Begin("(Verifying ------------- %2d%%)");
        const auto length = static_cast<uint32_t>(m_header.size());
        if (m_driver.Read(channel, address, length) != m_header) return Fail(Clear(30));
        Advance(length, 30);
        for (const Section& section : chosen) {
            if (section.Clears()) continue;
            for (uint32_t at = 0; at < Size(section); at += kChunk) {
                if (m_driver.Read(channel, section.address + at, ChunkAt(section, at)) !=
                    DataAt(section, at))
                    return Fail(Text("read error %u\n", at) + Clear(30));
                Advance(ChunkAt(section, at), 29);
            }
        }
        m_run.output += Clear(30);
        return true;
    }

    RefDriver& m_driver;
    RefOptions m_options;
    Bytes m_header;
    uint32_t m_version = 0;
    std::vector<Section> m_sections;
    RefRun m_run;
    bool m_events = false;
    std::vector<RefChannel*> m_known;
    std::vector<Listed> m_list;
    int m_needs = 0, m_success = 0, m_fail = 0, m_skip = 0;
    const char* m_format = "";
    uint32_t m_done = 0, m_total = 0, m_percentage = 0;
};

}  // namespace

RefRun RunReference(RefDriver& driver, const Bytes& package, const RefOptions& options) {
    return Tool(driver, package, options).Run();
}

}  // namespace qvtest
