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
        : driver_(driver), options_(options) {
        const size_t length = U16(file, 10);
        header_.assign(file.begin(), file.begin() + static_cast<ptrdiff_t>(length));
        version_ = U32(file, 16);
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
            sections_.push_back(section);
        }
    }

    RefRun Run() {
        events_ = driver_.OpenEvents();
        Enumerate();
        Enumerate();
        const int result = BuildList();
        if (result == 1 || result == 2) {
            run_.output +=
                "device " + options_.device.value_or("(null)") +
                (result == 1 ? " isn't a pelix or lumo capture device\n" : " doesn't exit\n");
            return Leave(255);
        }
        if (list_.empty()) {
            run_.output += Text("total 0, need upgrade %d\n", needs_);
            return Leave(0);
        }
        PrintTable();
        for (size_t i = 0; i < list_.size(); ++i) Upgrade(i);
        run_.output += Text("\ntotal %d,  success %d,  fail %d,  skip %d,  cancel 0\n",
                            static_cast<int>(list_.size()), success_, fail_, skip_);
        Leave(0);
        if (fail_ == 0 && success_ > 0) run_.output += kPowerOffQuestion + "\n";
        return run_;
    }

  private:
    RefRun Leave(int status) {
        if (events_) driver_.CloseEvents();
        run_.status = status;
        return run_;
    }

    void Enumerate() {
        known_.clear();
        for (RefChannel& channel : driver_.world.channels) {
            if (!driver_.Open(channel)) continue;
            if (driver_.Simple(channel, "GetChannelInfo") &&
                driver_.Simple(channel, "GetFamilyInfo"))
                known_.push_back(&channel);
            driver_.Close(channel);
        }
    }

    RefChannel* Known(const std::string& path) {
        for (RefChannel* channel : known_)
            if (channel->Path() == path) return channel;
        return nullptr;
    }

    int BuildList() {
        if (options_.device && options_.device->find(':') == std::string::npos) {
            if (const int result = Inspect(*options_.device)) return list_.clear(), result;
            return 0;
        }
        std::set<int> lumoBoards;
        for (RefChannel* channel : known_) {
            if (options_.device &&
                *options_.device != Text("%d:%d", channel->board, channel->channel))
                continue;
            if (channel->lumo && !lumoBoards.insert(channel->board).second) continue;
            if (const int result = Inspect(channel->Path())) return list_.clear(), result;
        }
        return 0;
    }

    int Inspect(const std::string& path) {
        if (!driver_.Exists(path)) return 2;
        RefChannel* channel = Known(path);
        if (!channel) return 1;
        if (!driver_.Open(*channel)) return 5;
        Listed record;
        record.channel = channel;
        record.current = Dotted(channel->version);
        const int result = Compare(*channel, &record);
        if (result == kNoPackage) {  // stays open
            list_.push_back(record);
            return 0;
        }
        driver_.Close(*channel);
        if (result == 0) list_.push_back(record);
        return result;
    }

    static constexpr int kNoPackage = -1;

    int Compare(RefChannel& channel, Listed* record) {
        if (!driver_.Simple(channel, "GetChannelInfo")) return 5;
        if (!driver_.Simple(channel, "GetChannelInfo")) return kNoPackage;
        record->target = Dotted(version_);
        record->need = channel.version < version_;
        needs_ += record->need;
        if (!driver_.Simple(channel, "GetFirmwareStorageInfo", StorageDetail(channel))) return 5;
        const auto stored = driver_.Read(channel, channel.firmware, 157);
        if (!stored || stored->size() != 157) return 5;
        const uint32_t reference = U32(*stored, 16) == channel.version ? U16(*stored, 8) : 0;
        record->safe = U16(header_, 8) == reference && reference != 1;
        return 0;
    }

    static std::string StorageDetail(const RefChannel& channel) {
        return Text(" firmware=0x%x", channel.firmware);
    }

    static std::string Name(const RefChannel& channel) {
        return Text("%02d:%02d %s", channel.board, channel.channel, channel.product.c_str());
    }

    void PrintTable() {
        run_.output += kWarning +
                       Text("total %d  need upgrade %d\n", static_cast<int>(list_.size()), needs_) +
                       kTableHeader;
        for (const Listed& record : list_)
            run_.output +=
                Text("%-30s |%-15s |%-15c |%-15s |%-15s\n", Name(*record.channel).c_str(),
                     record.current.c_str(), 'A', record.target.c_str(),
                     record.need ? "Need upgrade" : "Not Need upgrade");
        run_.output += "\n";
    }

    void Upgrade(size_t i) {
        const Listed& record = list_[i];
        const std::string mode = record.safe ? "Safe upgrade" : "Upgrade";
        const std::string name =
            Text("[%d/%d] [%s]  ", static_cast<int>(i + 1), static_cast<int>(list_.size()),
                 Name(*record.channel).c_str());
        const std::string line =
            "\r" + name + mode + " from " + record.current + " to " + record.target;
        const bool open = driver_.Open(*record.channel);
        percentage_ = 0;
        const int result = open ? UpgradeOpened(*record.channel, name + mode, record.safe) : 0;
        switch (result) {
            case 0:
                run_.output += Clear(80) + line + " error (unknow reason).";
                break;
            case 2:
                run_.output += "\r" + name + "Needn't upgrade";
                break;
            case 4:
                run_.output += Clear(80) + line + Failed("erasing");
                break;
            case 6:
                run_.output += Clear(80) + line + Failed("writting");
                break;
            case 9:
                run_.output += Clear(80) + line + Failed("verifying");
                break;
            case 16:
                run_.output += Clear(80) + line + " successfully.";
                break;
            default:
                break;
        }
        success_ += result == 16;
        skip_ += result == 2;
        fail_ += result == 0 || result == 4 || result == 6 || result == 9;
        if (open) driver_.Close(*record.channel);
        run_.output += "\n";
    }

    std::string Failed(const char* doing) const {
        return Text(" error (%s at %u%%).", doing, percentage_);
    }

    int UpgradeOpened(RefChannel& channel, const std::string& announcement, bool safe) {
        if (!driver_.Simple(channel, "GetChannelInfo")) return 0;
        if (!driver_.Simple(channel, "GetChannelInfo")) return 1;
        if (!driver_.Simple(channel, "GetFirmwareStorageInfo", StorageDetail(channel))) return 0;
        if (!options_.force && channel.version >= version_) return 2;
        run_.output +=
            announcement + " from " + Dotted(channel.version) + " to " + Dotted(version_) + "   ";
        const uint32_t address = channel.firmware + (safe ? 4096 : 0);
        std::vector<Section> chosen;
        total_ = static_cast<uint32_t>(header_.size());
        for (const Section& section : sections_) {
            if (section.OfUpgradeImage() != safe) continue;
            chosen.push_back(section);
            total_ += static_cast<uint32_t>(section.data.size());
        }
        if (!EraseAll(channel, address, chosen)) return 4;
        if (!WriteAll(channel, address, chosen)) return 6;
        if (!VerifyAll(channel, address, chosen)) return 9;
        if (driver_.Simple(channel, "SetPostReconfig", " value=200")) return 16;
        run_.output += "Set post reconfig failed";
        return 10;
    }

    // --- the three stages -------------------------------------------------------------------
    void Begin(const char* format) {
        format_ = format;
        done_ = 0;
        Show();
    }
    void Show() {
        percentage_ = done_ * 100 / total_;
        run_.output += Text(format_, static_cast<int>(percentage_));
    }
    void Advance(uint32_t bytes, size_t columns) {
        done_ += bytes;
        run_.output += Clear(columns);
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
        run_.output += clears;
        return false;
    }

    bool EraseAll(RefChannel& channel, uint32_t address, const std::vector<Section>& chosen) {
        Begin("(Erasing ------------- %2d%%)");
        const auto length = static_cast<uint32_t>(header_.size());
        if (!driver_.Erase(channel, address, length)) return Fail(Clear(28));
        Advance(length, 28);
        for (const Section& section : chosen) {
            for (uint32_t at = 0; at < Size(section); at += kChunk) {
                if (!driver_.Erase(channel, section.address + at, ChunkAt(section, at)))
                    return Fail(Clear(28) + Clear(28));
                Advance(ChunkAt(section, at), 27);
            }
            if (!section.Clears()) continue;
            for (uint32_t at = 0; at < Size(section); at += kChunk)
                if (driver_.Read(channel, section.address + at, ChunkAt(section, at)) !=
                    Bytes(ChunkAt(section, at), 0xFF))
                    return Fail(Clear(28) + Clear(28));
        }
        run_.output += Clear(28);
        return true;
    }

    bool WriteAll(RefChannel& channel, uint32_t address, const std::vector<Section>& chosen) {
        Begin("(Writting ------------- %2d%%)");
        if (!driver_.Write(channel, address, header_)) return Fail(Clear(28));
        Advance(static_cast<uint32_t>(header_.size()), 28);
        for (const Section& section : chosen) {
            if (section.Clears()) continue;
            for (uint32_t at = 0; at < Size(section); at += kChunk) {
                if (!driver_.Write(channel, section.address + at, DataAt(section, at)))
                    return Fail(Clear(28) + Clear(28));
                Advance(ChunkAt(section, at), 28);
            }
        }
        run_.output += Clear(28);
        return true;
    }

    bool VerifyAll(RefChannel& channel, uint32_t address, const std::vector<Section>& chosen) {
        Begin("(Verifying ------------- %2d%%)");
        const auto length = static_cast<uint32_t>(header_.size());
        if (driver_.Read(channel, address, length) != header_) return Fail(Clear(30));
        Advance(length, 30);
        for (const Section& section : chosen) {
            if (section.Clears()) continue;
            for (uint32_t at = 0; at < Size(section); at += kChunk) {
                if (driver_.Read(channel, section.address + at, ChunkAt(section, at)) !=
                    DataAt(section, at))
                    return Fail(Text("read error %u\n", at) + Clear(30));
                Advance(ChunkAt(section, at), 29);
            }
        }
        run_.output += Clear(30);
        return true;
    }

    RefDriver& driver_;
    RefOptions options_;
    Bytes header_;
    uint32_t version_ = 0;
    std::vector<Section> sections_;
    RefRun run_;
    bool events_ = false;
    std::vector<RefChannel*> known_;
    std::vector<Listed> list_;
    int needs_ = 0, success_ = 0, fail_ = 0, skip_ = 0;
    const char* format_ = "";
    uint32_t done_ = 0, total_ = 0, percentage_ = 0;
};

}  // namespace

RefRun RunReference(RefDriver& driver, const Bytes& package, const RefOptions& options) {
    return Tool(driver, package, options).Run();
}

}  // namespace qvtest
