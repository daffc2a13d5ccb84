// Builds the cards from their state, and keeps both in step with other processes on the folder.
// What requests do to them is elsewhere.
#include "LiveCards.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <utility>

#include "FirmwareImage.h"
#include "Hex.h"
#include "OpenRecord.h"

namespace qvsim {
namespace {

constexpr char kEventPath[] = "/dev/qv-event";
constexpr char kVideoPrefix[] = "/dev/video";

// The number of a video node; none for another path, and for a number with a leading zero.
std::optional<int> NodeOf(const std::string& path) {
    constexpr size_t kPrefix = sizeof kVideoPrefix - 1;
    int node = 0;
    if (path.compare(0, kPrefix, kVideoPrefix) != 0) return std::nullopt;
    const char* const end = path.data() + path.size();
    const auto [last, error] = std::from_chars(path.data() + kPrefix, end, node);
    if (error != std::errc() || last != end) return std::nullopt;
    if (path[kPrefix] == '0' && path.size() > kPrefix + 1) return std::nullopt;
    return node;
}

// Distinguishes one start of the machine from another; its clock begins at 0 in each.
uint64_t BootOfMachine() {
    const std::string id = ReadText("/proc/sys/kernel/random/boot_id");
    return uint64_t{1} << 32 | Crc32(id.data(), id.size());
}

}  // namespace

std::string LiveCards::Load(const std::string& dir) {
    std::string error = LoadState(dir, m_state);
    if (!error.empty()) return error;
    if (error = Folder::Open(dir, m_folder); !error.empty()) return error;
    const Folder::Lock lock(m_folder.get());
    // Now that nobody else changes anything.
    m_generation = LoadShared(m_folder->Page().generation);
    error = LoadState(dir, m_state);
    if (error.empty()) error = Build();
    if (error.empty()) error = m_journal.Open(*m_folder, m_state.journalLimit);
    if (!error.empty()) return error;
    if (m_journal.HasRoom()) CloseForTheDead(*m_folder, m_journal);
    return {};
}

std::string LiveCards::LayOut(CardsState state) {
    m_state = std::move(state);
    return Build();
}

std::string LiveCards::Build() {
    for (BoardState& board : m_state.boards)
        if (std::string error = BuildBoard(board); !error.empty()) return error;
    TakeOnDriverWays();
    if (!m_folder) {
        for (const Fault& fault : m_state.faults) m_faults.Add(fault);
        return {};
    }
    LivePage& page = m_folder->Page();
    m_faults.Take(m_state.faults, page.faultSeen);
    const uint64_t boot = BootOfMachine();
    const bool newBoot = page.boot != boot;
    page.boot = boot;
    for (const auto& board : m_boards) {
        board->clock.Share(&page.clocks[board->state->index], m_time.Start());
        if (newBoot) board->clock.Set(m_time.Now(), 0);
    }
    return {};
}

void LiveCards::TakeOnDriverWays() {
    for (HandlePool* pool :
         {&m_events.Handles(), &m_notifications.Handles(), &m_timers.Handles(), &m_imageHandles})
        pool->UseAgain(m_state.driver.reuseHandles);
    m_media.SetAfterStop(m_state.driver.afterStop);
    m_events.SetVeto([this](const char* signal, const Channel* channel) {
        return EffectOf(MeetFaults(signal, channel), FaultKind::kPretend).has_value();
    });
}

std::string LiveCards::BuildBoard(BoardState& state) {
    auto board = std::make_unique<Board>();
    board->state = &state;
    for (size_t i = 0; i < state.channels.size(); ++i) {
        if (i == 0 || !state.sharedFlash) {
            auto flash = m_folder ? std::make_unique<NorFlash>()
                                  : std::make_unique<NorFlash>(state.flashSize);
            const std::string name = FlashFileName(state, static_cast<int>(i));
            std::string error;
            if (m_folder) error = flash->Open(m_folder->Dir() + "/" + name, state.flashSize);
            if (!error.empty()) return error;
            board->flashes.push_back(std::move(flash));
        }
        auto channel = std::make_unique<Channel>();
        channel->board = board.get();
        channel->state = &state.channels[i];
        channel->index = static_cast<int>(i);
        channel->flash = board->flashes.back().get();
        if (m_folder)
            if (std::string error = LoadSettings(*channel); !error.empty()) return error;
        m_channels.push_back(std::move(channel));
    }
    m_boards.push_back(std::move(board));
    return {};
}

std::string LiveCards::SettingsPath(const Channel& channel) const {
    return m_folder->Dir() + "/settings-b" + std::to_string(channel.board->state->index) + "-c" +
           std::to_string(channel.index);
}

uint32_t& LiveCards::SettingsGeneration(const Channel& channel) const {
    return m_folder->Page().settings[channel.board->state->index][channel.index];
}

// Returns an error message, empty on success. The folder's lock is held, here and below.
std::string LiveCards::LoadSettings(Channel& channel) const {
    channel.settingsSeen = LoadShared(SettingsGeneration(channel));
    const std::string text = ReadText(SettingsPath(channel));
    channel.settingsBytes = text.size();
    if (channel.settingsFile >= 0) CloseOwn(std::exchange(channel.settingsFile, -1));
    const int line = channel.settings.Load(text);
    if (line == 0) return {};
    return SettingsPath(channel) + ":" + std::to_string(line) + ": not a line of a settings file";
}

bool LiveCards::OpenSettings(Channel& channel) const {
    constexpr size_t kLongest = 256u << 10;
    if (channel.settingsFile >= 0 && channel.settingsBytes < kLongest) return true;
    // A file that is new, or has grown long, is rewritten with only the present settings.
    if (channel.settingsBytes == 0 || channel.settingsBytes >= kLongest) {
        Settings whole;
        whole.Load(ReadText(SettingsPath(channel)));
        const std::string text = whole.Save();
        if (!ReplaceFile(SettingsPath(channel), text)) return false;
        channel.settingsBytes = text.size();
    }
    if (channel.settingsFile >= 0) CloseOwn(channel.settingsFile);
    channel.settingsFile = OpenOutOfTheWay(SettingsPath(channel), O_WRONLY | O_APPEND);
    return channel.settingsFile >= 0;
}

bool LiveCards::KeepSettings(Channel* channel) {
    if (!channel) return true;
    const std::string changes = channel->settings.TakeChanges();
    if (changes.empty() || !m_folder) return true;
    const Folder::Lock lock(m_folder.get());
    const bool stale = channel->settingsSeen != LoadShared(SettingsGeneration(*channel));
    // Another process may have put another file in its place.
    if (stale && channel->settingsFile >= 0) CloseOwn(std::exchange(channel->settingsFile, -1));
    if (stale) channel->settingsBytes = ReadText(SettingsPath(*channel)).size();
    bool kept = OpenSettings(*channel);
    if (kept && !WriteAll(channel->settingsFile, changes.data(), changes.size())) {
        kept = false;
        const int error = errno;
        const auto before = static_cast<off_t>(channel->settingsBytes);
        if (ftruncate(channel->settingsFile, before) != 0) channel->settingsBytes = 0;
        errno = error;
    }
    if (kept) {
        channel->settingsBytes += changes.size();
        const uint32_t mine = CountShared<uint32_t>(SettingsGeneration(*channel));
        if (!stale) channel->settingsSeen = mine;
    } else {
        Complain(SettingsPath(*channel), errno);
    }
    if (stale || !kept) LoadSettings(*channel);
    return kept;
}

void LiveCards::Complain(const std::string& what, int error) {
    if (std::exchange(m_complained, true)) return;
    std::fprintf(stderr, "qvcap-sim: %s: %s; requests fail until that is mended\n", what.c_str(),
                 std::strerror(error));
}

bool LiveCards::HasRoom() {
    if (!m_folder || m_journal.HasRoom()) return true;
    Complain(JournalPath(m_folder->Dir()), errno);
    return false;
}

void LiveCards::ComplainAboutFlash(const Channel& channel, int error) {
    const std::string name = FlashFileName(*channel.board->state, channel.index);
    Complain(m_folder ? m_folder->Dir() + "/" + name : name, error);
}

void LiveCards::CatchUp(Channel* channel) {
    if (!m_folder) return;
    if (LoadShared(m_folder->Page().generation) != m_generation) {
        const Folder::Lock lock(m_folder.get());
        m_generation = LoadShared(m_folder->Page().generation);
        CardsState fresh;
        // If the file cannot be read, this process keeps what it knows.
        if (const std::string error = LoadState(m_folder->Dir(), fresh); error.empty())
            TakeOverState(fresh);
    }
    if (!channel || LoadShared(SettingsGeneration(*channel)) == channel->settingsSeen) return;
    const Folder::Lock lock(m_folder.get());
    LoadSettings(*channel);
}

// Takes over what can change while cards are in use; newly created cards are other cards, and
// ignored.
void LiveCards::TakeOverState(const CardsState& fresh) {
    if (fresh.boards.size() != m_state.boards.size()) return;
    m_state.eventNodeGone = fresh.eventNodeGone;
    m_state.faults = fresh.faults;
    m_faults.Take(m_state.faults, m_folder->Page().faultSeen);
    for (size_t b = 0; b < fresh.boards.size(); ++b) {
        BoardState& board = m_state.boards[b];
        if (fresh.boards[b].channels.size() != board.channels.size()) continue;
        board.powerLost = fresh.boards[b].powerLost;
        for (size_t c = 0; c < board.channels.size(); ++c) {
            board.channels[c].info = fresh.boards[b].channels[c].info;
            board.channels[c].gone = fresh.boards[b].channels[c].gone;
        }
    }
}

template <class Change>
bool LiveCards::ChangeState(Change change) {
    const Folder::Lock lock(m_folder.get());
    CatchUp(nullptr);
    change();
    if (!m_folder) return true;
    const std::string error = SaveState(*m_folder, m_state);
    m_generation = LoadShared(m_folder->Page().generation);
    if (error.empty()) return true;
    Complain(StatePath(m_folder->Dir()), errno);
    return false;
}

Channel* LiveCards::FindChannel(int board, int channel) {
    for (const auto& candidate : m_channels)
        if (candidate->board->state->index == board && candidate->index == channel)
            return candidate.get();
    return nullptr;
}

Channel* LiveCards::ChannelOfNode(const std::string& path) {
    const std::optional<int> node = NodeOf(path);
    for (const auto& channel : m_channels)
        if (channel->state->node == node) return channel.get();
    return nullptr;
}

bool LiveCards::IsForeign(const std::string& path) const {
    const std::optional<int> wanted = NodeOf(path);
    return std::any_of(m_state.foreignNodes.begin(), m_state.foreignNodes.end(),
                       [&](int node) { return node == wanted; });
}

bool LiveCards::Exists(const std::string& path) {
    CatchUp(nullptr);
    if (path == kEventPath) return m_state.eventNode && !m_state.eventNodeGone;
    if (const Channel* channel = ChannelOfNode(path)) return !channel->state->gone;
    return IsForeign(path);
}

std::vector<std::string> LiveCards::NodeNames() {
    CatchUp(nullptr);
    std::vector<std::string> names;
    for (const auto& channel : m_channels)
        if (!channel->state->gone) names.push_back("video" + std::to_string(channel->state->node));
    for (const int node : m_state.foreignNodes) names.push_back("video" + std::to_string(node));
    if (m_state.eventNode && !m_state.eventNodeGone) names.push_back("qv-event");
    return names;
}

int LiveCards::OpenError(const std::string& path, const Channel* owner) const {
    if (path == kEventPath) {
        if (!m_state.eventNode) return ENOENT;
    } else if (!owner) {
        return IsForeign(path) ? 0 : ENOENT;
    }
    return m_shutDown || IsGone(owner) ? ENODEV : 0;
}

int LiveCards::OpenFault(const std::string& path, const std::vector<FaultEffect>& effects,
                         Channel* owner) {
    // An open of another driver's node can be refused, but the node never vanishes.
    if (KindOf(path, owner) == NodeKind::kForeign)
        return static_cast<int>(EffectOf(effects, FaultKind::kRefuse).value_or(0));
    int error = 0;
    for (const FaultEffect& effect : effects) {
        if (effect.kind == FaultKind::kRefuse) error = static_cast<int>(effect.value);
        if (effect.kind == FaultKind::kNodeGone) LoseNode(owner);
        if (effect.kind != FaultKind::kPowerLoss) continue;
        for (const auto& board : m_boards)
            if (!owner || board.get() == owner->board) LosePower(*board);
    }
    return IsGone(owner) ? ENODEV : error;
}

NodeKind LiveCards::KindOf(const std::string& path, const Channel* owner) {
    if (path == kEventPath) return NodeKind::kEvents;
    return owner ? NodeKind::kChannel : NodeKind::kForeign;
}

std::shared_ptr<OpenFile> LiveCards::AddFile(const std::string& path, const std::string& record) {
    Channel* const owner = ChannelOfNode(path);
    m_files.push_back(
        std::make_shared<OpenFile>(OpenFile{KindOf(path, owner), owner, path, record}));
    return m_files.back();
}

std::shared_ptr<OpenFile> LiveCards::Adopt(const std::string& link) {
    OpenRecord record;
    if (!m_folder || !ParseOpenRecord(m_folder->Dir(), link, record)) return nullptr;
    for (const auto& file : m_files)
        if (file->record == link) return file;
    return AddFile(record.node, link);
}

int LiveCards::MakeDescriptor(int flags, std::string& record) {
    if (m_folder) return MakeOpenRecord(*m_folder, flags, record);
    return open("/dev/null", flags & (O_ACCMODE | O_NONBLOCK | O_CLOEXEC | O_APPEND));
}

void LiveCards::DropDescriptor(const std::string& record) {
    if (m_folder) EndOpenRecord(*m_folder, record);
}

void LiveCards::JournalOpen(const std::string& path, int descriptor, int error) {
    if (!m_journal.IsOpen() || !m_journal.HasRoom()) return;
    if (error)
        m_journal.Write("open " + path, Refused(error));
    else
        m_journal.Write("open " + path + " fd=" + std::to_string(descriptor), Ok());
}

void LiveCards::JournalOpen(OpenFile& file, const std::string& record, int descriptor) {
    JournalOpen(file.path, descriptor, 0);
    file.record = record;
    if (m_folder) NameOpenRecord(*m_folder, file.record, {file.path, getpid(), descriptor});
}

void LiveCards::Close(Lock& lock, const std::shared_ptr<OpenFile>& file, int descriptor) {
    if (file->channel) m_media.DropOwner(lock, *file->channel, file.get());
    m_notifications.DropOwner(file.get());
    m_timers.DropOwner(file.get());
    m_events.DropOwner(file.get());
    std::erase(m_files, file);
    if (!m_journal.IsOpen() || !EndOpenRecord(*m_folder, file->record)) return;
    m_journal.Write("close " + file->path + " fd=" + std::to_string(descriptor), Ok());
}

std::vector<FaultEffect> LiveCards::MeetFaults(const std::string& request, const Channel* channel) {
    const int board = channel ? channel->board->state->index : -1;
    std::vector<FaultEffect> effects = m_faults.Hits(request, board, channel ? channel->index : -1);
    for (const FaultEffect& effect : effects)
        if (effect.kind != FaultKind::kSlow) NoteMet(effect.kind, request, channel);
    return effects;
}

bool LiveCards::Hangs(const std::string& request, const Channel* channel) const {
    const int board = channel ? channel->board->state->index : -1;
    return !m_shutDown && m_faults.Hangs(request, board, channel ? channel->index : -1);
}

void LiveCards::NoteMet(FaultKind kind, const std::string& request, const Channel* channel) const {
    if (!m_folder) return;
    AppendText(MetFaultsPath(m_folder->Dir()),
               std::string(FaultKindName(kind)) + " " + request +
                   " board=" + std::to_string(channel ? channel->board->state->index : -1) +
                   " channel=" + std::to_string(channel ? channel->index : -1) + "\n");
}

void LiveCards::LosePower(Board& board) {
    ChangeState([&] { board.state->powerLost = true; });
}

void LiveCards::LoseNode(Channel* channel) {
    if (IsGone(channel)) return;
    ChangeState([&] { (channel ? channel->state->gone : m_state.eventNodeGone) = true; });
}

void LiveCards::AddFault(const Fault& fault) {
    if (!m_folder) return m_faults.Add(fault);
    ChangeState([&] { m_state.faults.push_back(fault); });
    m_faults.Take(m_state.faults, m_folder->Page().faultSeen);
}

void LiveCards::ClearFaults() {
    ChangeState([&] { m_state.faults.clear(); });
    m_faults.Clear();
}

bool LiveCards::PowerCycle() {
    const Folder::Lock lock(m_folder.get());
    bool kept = ChangeState([this] {
        m_state.eventNodeGone = false;
        for (const auto& board : m_boards) board->clock.Set(m_time.Now(), 0);
        for (const auto& channel : m_channels) {
            channel->state->info.firmwareVersion =
                LoadFirmware(*channel->flash, channel->state->storage.firmwareOffset,
                             channel->board->state->goldenVersion);
            channel->board->state->powerLost = false;
            channel->state->gone = false;
        }
    });
    for (const auto& channel : m_channels) {
        CatchUp(channel.get());
        channel->settings.Reset();
        kept = KeepSettings(channel.get()) && kept;
    }
    return kept;
}

Bytes LiveCards::LastRecord(int board, int channel, const std::string& request) {
    const Channel* found = FindChannel(board, channel);
    if (!found && board != -1) return {};
    const auto& records = found ? found->lastRecord : m_eventRecords;
    const auto record = records.find(request);
    return record == records.end() ? Bytes() : record->second;
}

void LiveCards::SetRecord(int board, int channel, const std::string& key, const Bytes& record) {
    Channel* const found = FindChannel(board, channel);
    if (!found) return;
    CatchUp(found);
    found->settings.Put(key, record);
    KeepSettings(found);
}

void LiveCards::ShutDown() {
    m_shutDown = true;
    m_events.ShutDown();
}

Alive LiveCards::CountAlive() const {
    Alive alive;
    alive.files = m_files.size();
    alive.events = m_events.Count();
    alive.notifications = m_notifications.Count();
    alive.timers = m_timers.Count();
    for (const auto& channel : m_channels) {
        alive.images += channel->images.size();
        alive.pinnedBuffers += channel->pinned.size();
        alive.frames += m_media.InWork(*channel);
        alive.captures += (channel->video.running ? 1u : 0u) + (channel->audio.running ? 1u : 0u);
    }
    return alive;
}

std::optional<int64_t> LiveCards::RunDue() {
    const int64_t now = m_time.Now();
    const std::optional<int64_t> timer = m_timers.Run(now, m_events);
    const std::optional<int64_t> media = m_media.Run(m_channels, now);
    return timer && media ? std::min(*timer, *media) : timer ? timer : media;
}

void LiveCards::BeginInChild() {
    m_events.BeginInChild();
    m_media.BeginInChild();
    for (const auto& channel : m_channels) {
        channel->video.waiting.clear();
        channel->video.late.clear();
    }
}

}  // namespace qvsim
