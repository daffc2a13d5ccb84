#include "Model.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

#include "FirmwareImage.h"
#include "Hex.h"
#include "OpenRecord.h"

namespace qvsim {
namespace {

constexpr char kFolder[] = "/dev/";
constexpr char kEventName[] = "qv-event";
constexpr char kVideoName[] = "video";
constexpr char kEventPath[] = "/dev/qv-event";
constexpr char kVideoPrefix[] = "/dev/video";

// The number of a video node; none for another path, and for a number with a zero before it.
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

// Tells one run of the machine from another; its clock begins at 0 in each.
uint64_t BootOfMachine() {
    const std::string id = ReadText("/proc/sys/kernel/random/boot_id");
    return uint64_t{1} << 32 | Crc32(id.data(), id.size());
}

}  // namespace

std::shared_ptr<Model> Model::Load(const std::string& dir, std::string& error) {
    std::shared_ptr<Model> model(new Model);
    error = LoadState(dir, model->state_);
    if (!error.empty()) return nullptr;
    model->folder_ = Folder::Open(dir, error);
    if (!model->folder_) return nullptr;
    const Folder::Lock lock(model->folder_.get());
    // Now that nobody else changes anything.
    model->generation_ = LoadShared(model->folder_->Page().generation);
    error = LoadState(dir, model->state_);
    if (error.empty()) error = model->Build();
    if (error.empty()) error = model->journal_.Open(*model->folder_, model->state_.journalLimit);
    if (!error.empty()) return nullptr;
    if (model->journal_.HasRoom()) CloseForTheDead(*model->folder_, model->journal_);
    return model;
}

std::shared_ptr<Model> Model::InMemory(CardsState state, std::string& error) {
    std::shared_ptr<Model> model(new Model);
    model->state_ = std::move(state);
    error = model->Build();
    return error.empty() ? model : nullptr;
}

Model::~Model() { ShutDown(); }

std::string Model::Build() {
    for (BoardState& board : state_.boards)
        if (std::string error = BuildBoard(board); !error.empty()) return error;
    TakeOnDriverWays();
    if (!folder_) {
        for (const Fault& fault : state_.faults) faults_.Add(fault);
        return {};
    }
    LivePage& page = folder_->Page();
    faults_.Take(state_.faults, page.faultSeen);
    const uint64_t boot = BootOfMachine();
    const bool newBoot = page.boot != boot;
    page.boot = boot;
    for (const auto& board : boards_) {
        board->clock.Share(&page.clocks[board->state->index], time_.Start());
        if (newBoot) board->clock.Set(time_.Now(), 0);
    }
    return {};
}

void Model::TakeOnDriverWays() {
    for (HandlePool* pool :
         {&events_.Handles(), &notifications_.Handles(), &timers_.Handles(), &imageHandles_})
        pool->UseAgain(state_.driver.reuseHandles);
    media_.SetAfterStop(state_.driver.afterStop);
    events_.SetVeto([this](const char* signal, const Channel* channel) {
        return EffectOf(MeetFaults(signal, channel), FaultKind::kPretend).has_value();
    });
}

std::string Model::BuildBoard(BoardState& state) {
    auto board = std::make_unique<Board>();
    board->state = &state;
    for (size_t i = 0; i < state.channels.size(); ++i) {
        if (i == 0 || !state.sharedFlash) {
            auto flash = folder_ ? std::make_unique<NorFlash>()
                                 : std::make_unique<NorFlash>(state.flashSize);
            const std::string name = FlashFileName(state, static_cast<int>(i));
            std::string error;
            if (folder_) error = flash->Open(folder_->Dir() + "/" + name, state.flashSize);
            if (!error.empty()) return error;
            board->flashes.push_back(std::move(flash));
        }
        auto channel = std::make_unique<Channel>();
        channel->board = board.get();
        channel->state = &state.channels[i];
        channel->index = static_cast<int>(i);
        channel->flash = board->flashes.back().get();
        if (folder_)
            if (std::string error = LoadSettings(*channel); !error.empty()) return error;
        channels_.push_back(std::move(channel));
    }
    boards_.push_back(std::move(board));
    return {};
}

std::string Model::SettingsPath(const Channel& channel) const {
    return folder_->Dir() + "/settings-b" + std::to_string(channel.board->state->index) + "-c" +
           std::to_string(channel.index);
}

uint32_t& Model::SettingsGeneration(const Channel& channel) const {
    return folder_->Page().settings[channel.board->state->index][channel.index];
}

// An empty text or what is wrong; the folder's lock is held, here and below.
std::string Model::LoadSettings(Channel& channel) const {
    channel.settingsSeen = LoadShared(SettingsGeneration(channel));
    const std::string text = ReadText(SettingsPath(channel));
    channel.settingsBytes = text.size();
    if (channel.settingsFile >= 0) CloseOwn(std::exchange(channel.settingsFile, -1));
    const int line = channel.settings.Load(text);
    if (line == 0) return {};
    return SettingsPath(channel) + ":" + std::to_string(line) + ": not a line of a settings file";
}

bool Model::OpenSettings(Channel& channel) const {
    constexpr size_t kLongest = 256u << 10;
    if (channel.settingsFile >= 0 && channel.settingsBytes < kLongest) return true;
    // A file that is new, or has grown long, is written as what it comes to.
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

bool Model::KeepSettings(Channel* channel) {
    if (!channel) return true;
    const std::string changes = channel->settings.TakeChanges();
    if (changes.empty() || !folder_) return true;
    const Folder::Lock lock(folder_.get());
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

void Model::Complain(const std::string& what, int error) {
    if (std::exchange(complained_, true)) return;
    std::fprintf(stderr, "qvcap-sim: %s: %s; requests fail until that is mended\n", what.c_str(),
                 std::strerror(error));
}

bool Model::HasRoom() {
    if (!folder_ || journal_.HasRoom()) return true;
    Complain(JournalPath(folder_->Dir()), errno);
    return false;
}

void Model::CatchUp(Channel* channel) {
    if (!folder_) return;
    if (LoadShared(folder_->Page().generation) != generation_) {
        const Folder::Lock lock(folder_.get());
        generation_ = LoadShared(folder_->Page().generation);
        CardsState fresh;
        // A file that cannot be read leaves this process with what it knows.
        if (const std::string error = LoadState(folder_->Dir(), fresh); error.empty())
            TakeOverState(fresh);
    }
    if (!channel || LoadShared(SettingsGeneration(*channel)) == channel->settingsSeen) return;
    const Folder::Lock lock(folder_.get());
    LoadSettings(*channel);
}

// What can change while cards are in use; cards that were laid out anew are others.
void Model::TakeOverState(const CardsState& fresh) {
    if (fresh.boards.size() != state_.boards.size()) return;
    state_.eventNodeGone = fresh.eventNodeGone;
    state_.faults = fresh.faults;
    faults_.Take(state_.faults, folder_->Page().faultSeen);
    for (size_t b = 0; b < fresh.boards.size(); ++b) {
        BoardState& board = state_.boards[b];
        if (fresh.boards[b].channels.size() != board.channels.size()) continue;
        board.powerLost = fresh.boards[b].powerLost;
        for (size_t c = 0; c < board.channels.size(); ++c) {
            board.channels[c].info = fresh.boards[b].channels[c].info;
            board.channels[c].gone = fresh.boards[b].channels[c].gone;
        }
    }
}

template <class Change>
bool Model::ChangeState(Change change) {
    const Folder::Lock lock(folder_.get());
    CatchUp(nullptr);
    change();
    if (!folder_) return true;
    const std::string error = SaveState(*folder_, state_);
    generation_ = LoadShared(folder_->Page().generation);
    if (error.empty()) return true;
    Complain(StatePath(folder_->Dir()), errno);
    return false;
}

bool Model::Answers(const char* path) {
    return std::strncmp(path, kFolder, sizeof kFolder - 1) == 0 &&
           AnswersName(path + sizeof kFolder - 1);
}

bool Model::AnswersName(const char* name) {
    if (std::strcmp(name, kEventName) == 0) return true;
    constexpr size_t prefix = sizeof kVideoName - 1;
    if (std::strncmp(name, kVideoName, prefix) != 0 || name[prefix] == '\0') return false;
    return std::strspn(name + prefix, "0123456789") == std::strlen(name + prefix);
}

Channel* Model::ChannelOfNode(const std::string& path) {
    const std::optional<int> node = NodeOf(path);
    for (const auto& channel : channels_)
        if (channel->state->node == node) return channel.get();
    return nullptr;
}

bool Model::IsForeign(const std::string& path) const {
    const std::optional<int> wanted = NodeOf(path);
    return std::any_of(state_.foreignNodes.begin(), state_.foreignNodes.end(),
                       [&](int node) { return node == wanted; });
}

bool Model::Exists(const std::string& path) {
    const std::lock_guard lock(mutex_);
    CatchUp(nullptr);
    if (path == kEventPath) return state_.eventNode && !state_.eventNodeGone;
    if (const Channel* channel = ChannelOfNode(path)) return !channel->state->gone;
    return IsForeign(path);
}

std::vector<std::string> Model::NodeNames() {
    const std::lock_guard lock(mutex_);
    CatchUp(nullptr);
    std::vector<std::string> names;
    for (const auto& channel : channels_)
        if (!channel->state->gone) names.push_back("video" + std::to_string(channel->state->node));
    for (const int node : state_.foreignNodes) names.push_back("video" + std::to_string(node));
    if (state_.eventNode && !state_.eventNodeGone) names.push_back("qv-event");
    return names;
}

int Model::OpenError(const std::string& path, const Channel* owner) const {
    if (path == kEventPath) {
        if (!state_.eventNode) return ENOENT;
    } else if (!owner) {
        return IsForeign(path) ? 0 : ENOENT;
    }
    return shutDown_ || IsGone(owner) ? ENODEV : 0;
}

int Model::OpenFault(const std::vector<FaultEffect>& effects, Channel* owner) {
    int error = 0;
    for (const FaultEffect& effect : effects) {
        if (effect.kind == FaultKind::kRefuse) error = static_cast<int>(effect.value);
        if (effect.kind == FaultKind::kNodeGone) LoseNode(owner);
        if (effect.kind != FaultKind::kPowerLoss) continue;
        for (const auto& board : boards_)
            if (!owner || board.get() == owner->board) LosePower(*board);
    }
    return IsGone(owner) ? ENODEV : error;
}

std::shared_ptr<OpenFile> Model::Open(const std::string& path, int& error) {
    Lock lock(mutex_);
    CatchUp(nullptr);
    Channel* const owner = ChannelOfNode(path);
    const NodeKind kind = path == kEventPath ? NodeKind::kEvents
                          : owner            ? NodeKind::kChannel
                                             : NodeKind::kForeign;
    error = OpenError(path, owner);
    if (!error && !HasRoom()) error = ENOSPC;
    if (error) return nullptr;
    const std::vector<FaultEffect> effects = MeetFaults("open", owner);
    if (const auto slow = EffectOf(effects, FaultKind::kSlow)) {
        lock.unlock();
        std::this_thread::sleep_for(std::chrono::milliseconds(*slow));
        lock.lock();
        NoteMet(FaultKind::kSlow, "open", owner);
    }
    error = kind == NodeKind::kForeign
                ? static_cast<int>(EffectOf(effects, FaultKind::kRefuse).value_or(0))
                : OpenFault(effects, owner);
    if (shutDown_) error = ENODEV;
    if (error) return nullptr;
    files_.push_back(std::make_shared<OpenFile>(OpenFile{kind, owner, path, {}}));
    std::shared_ptr<OpenFile> file = files_.back();
    Kick();  // a signal's script may have begun
    return file;
}

std::vector<FaultEffect> Model::MeetFaults(const std::string& request, const Channel* channel) {
    const int board = channel ? channel->board->state->index : -1;
    std::vector<FaultEffect> effects = faults_.Hits(request, board, channel ? channel->index : -1);
    for (const FaultEffect& effect : effects)
        if (effect.kind != FaultKind::kSlow) NoteMet(effect.kind, request, channel);
    return effects;
}

void Model::NoteMet(FaultKind kind, const std::string& request, const Channel* channel) const {
    if (!folder_) return;
    AppendText(MetFaultsPath(folder_->Dir()),
               std::string(FaultKindName(kind)) + " " + request +
                   " board=" + std::to_string(channel ? channel->board->state->index : -1) +
                   " channel=" + std::to_string(channel ? channel->index : -1) + "\n");
}

void Model::JournalOpen(const std::string& path, int descriptor, int error) {
    const std::lock_guard lock(mutex_);
    if (!journal_.IsOpen() || !journal_.HasRoom()) return;
    if (error)
        journal_.Write("open " + path, Refused(error));
    else
        journal_.Write("open " + path + " fd=" + std::to_string(descriptor), Ok());
}

int Model::MakeDescriptor(int flags, std::string& record) {
    const std::lock_guard lock(mutex_);
    if (folder_) return MakeOpenRecord(*folder_, flags, record);
    return open("/dev/null", flags & (O_ACCMODE | O_NONBLOCK | O_CLOEXEC | O_APPEND));
}

void Model::DropDescriptor(const std::string& record) {
    const std::lock_guard lock(mutex_);
    if (folder_) EndOpenRecord(*folder_, record);
}

void Model::JournalOpen(OpenFile& file, const std::string& record, int descriptor) {
    JournalOpen(file.path, descriptor, 0);
    const std::lock_guard lock(mutex_);
    file.record = record;
    if (folder_) NameOpenRecord(*folder_, file.record, {file.path, getpid(), descriptor});
}

std::shared_ptr<OpenFile> Model::Adopt(const std::string& link) {
    const std::lock_guard lock(mutex_);
    OpenRecord record;
    if (!folder_ || !ParseOpenRecord(folder_->Dir(), link, record)) return nullptr;
    for (const auto& file : files_)
        if (file->record == link) return file;
    Channel* const owner = ChannelOfNode(record.node);
    const NodeKind kind = record.node == kEventPath ? NodeKind::kEvents
                          : owner                   ? NodeKind::kChannel
                                                    : NodeKind::kForeign;
    files_.push_back(std::make_shared<OpenFile>(OpenFile{kind, owner, record.node, link}));
    return files_.back();
}

void Model::BeginInChild() {
    // None of them is in use, and none of what they know is true here.
    new (&timeChanged_) std::condition_variable;
    new (&timekeeper_) std::thread;
    events_.BeginInChild();
    media_.BeginInChild();
    for (const auto& channel : channels_) {
        channel->video.waiting.clear();
        channel->video.late.clear();
    }
}

void Model::Close(const std::shared_ptr<OpenFile>& file, int descriptor) {
    Lock lock(mutex_);
    if (file->channel) media_.DropOwner(lock, *file->channel, file.get());
    notifications_.DropOwner(file.get());
    timers_.DropOwner(file.get());
    events_.DropOwner(file.get());
    std::erase(files_, file);
    if (!journal_.IsOpen() || !EndOpenRecord(*folder_, file->record)) return;
    journal_.Write("close " + file->path + " fd=" + std::to_string(descriptor), Ok());
}

Channel* Model::FindChannel(int board, int channel) {
    for (const auto& candidate : channels_)
        if (candidate->board->state->index == board && candidate->index == channel)
            return candidate.get();
    return nullptr;
}

void Model::PowerCycle() {
    const std::lock_guard lock(mutex_);
    const Folder::Lock folderLock(folder_.get());
    ChangeState([this] {
        state_.eventNodeGone = false;
        for (const auto& board : boards_) board->clock.Set(time_.Now(), 0);
        for (const auto& channel : channels_) {
            channel->state->info.firmwareVersion =
                LoadFirmware(*channel->flash, channel->state->storage.firmwareOffset,
                             channel->board->state->goldenVersion);
            channel->board->state->powerLost = false;
            channel->state->gone = false;
        }
    });
    for (const auto& channel : channels_) {
        CatchUp(channel.get());
        channel->settings.Reset();
        KeepSettings(channel.get());
    }
}

void Model::LosePower(Board& board) {
    ChangeState([&] { board.state->powerLost = true; });
}

void Model::LoseNode(Channel* channel) {
    if (IsGone(channel)) return;
    ChangeState([&] { (channel ? channel->state->gone : state_.eventNodeGone) = true; });
}

void Model::AddFault(const Fault& fault) {
    const std::lock_guard lock(mutex_);
    if (!folder_) return faults_.Add(fault);
    ChangeState([&] { state_.faults.push_back(fault); });
    faults_.Take(state_.faults, folder_->Page().faultSeen);
}

void Model::ClearFaults() {
    const std::lock_guard lock(mutex_);
    ChangeState([&] { state_.faults.clear(); });
    faults_.Clear();
}

void Model::RaiseNotification(int board, int channel, uint64_t bits) {
    const std::lock_guard lock(mutex_);
    if (Channel* found = FindChannel(board, channel)) notifications_.Raise(found, bits, events_);
}

void Model::SetSignal(int board, int channel, bool present) {
    const std::lock_guard lock(mutex_);
    if (Channel* found = FindChannel(board, channel))
        media_.SetSignal(*found, present, time_.Now());
}

void Model::InterruptFrame(int board, int channel) {
    const std::lock_guard lock(mutex_);
    if (Channel* found = FindChannel(board, channel)) media_.Interrupt(*found);
}

Bytes Model::LastRecord(int board, int channel, const std::string& request) {
    const std::lock_guard lock(mutex_);
    const Channel* found = FindChannel(board, channel);
    if (!found && board != -1) return {};
    const auto& records = found ? found->lastRecord : eventRecords_;
    const auto record = records.find(request);
    return record == records.end() ? Bytes() : record->second;
}

NorFlash* Model::Flash(int board, int channel) {
    const std::lock_guard lock(mutex_);
    const Channel* found = FindChannel(board, channel);
    return found ? found->flash : nullptr;
}

void Model::SetRecord(int board, int channel, const std::string& key, const Bytes& record) {
    const std::lock_guard lock(mutex_);
    Channel* const found = FindChannel(board, channel);
    if (!found) return;
    CatchUp(found);
    found->settings.Put(key, record);
    KeepSettings(found);
}

Alive Model::CountAlive() {
    const std::lock_guard lock(mutex_);
    Alive alive;
    alive.files = files_.size();
    alive.events = events_.Count();
    alive.notifications = notifications_.Count();
    alive.timers = timers_.Count();
    for (const auto& channel : channels_) {
        alive.images += channel->images.size();
        alive.pinnedBuffers += channel->pinned.size();
        alive.frames += media_.InWork(*channel);
        alive.captures += (channel->video.running ? 1u : 0u) + (channel->audio.running ? 1u : 0u);
    }
    return alive;
}

void Model::FreezeClock() {
    const std::lock_guard lock(mutex_);
    time_.Freeze();
}

void Model::AdvanceClock(int64_t units) {
    const std::lock_guard lock(mutex_);
    time_.Advance(units);
    Kick();
}

std::optional<int64_t> Model::RunDue() {
    const int64_t now = time_.Now();
    const std::optional<int64_t> timer = timers_.Run(now, events_);
    const std::optional<int64_t> media = media_.Run(channels_, now);
    return timer && media ? std::min(*timer, *media) : timer ? timer : media;
}

void Model::Kick() {
    const bool somethingComes = RunDue().has_value();
    if (somethingComes && !timekeeper_.joinable() && !time_.Frozen() && !shutDown_)
        timekeeper_ = QuietThread([this] { KeepTime(); });
    timeChanged_.notify_all();
}

void Model::KeepTime() {
    constexpr int64_t kLongestSleep = 60 * kClockUnitsPerSecond;
    Lock lock(mutex_);
    while (!shutDown_) {
        const std::optional<int64_t> next = RunDue();
        if (!next || time_.Frozen()) {
            timeChanged_.wait(lock);
        } else {
            const int64_t units = std::min(*next, kLongestSleep);
            timeChanged_.wait_for(lock, std::chrono::nanoseconds(units * 100));
        }
    }
}

void Model::ShutDown() {
    {
        const std::lock_guard lock(mutex_);
        shutDown_ = true;
        events_.ShutDown();
        timeChanged_.notify_all();
    }
    if (timekeeper_.joinable()) timekeeper_.join();
    media_.Stop();
}

}  // namespace qvsim
