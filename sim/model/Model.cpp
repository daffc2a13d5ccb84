#include "Model.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "FirmwareImage.h"

namespace qvsim {
namespace {

constexpr char kEventPath[] = "/dev/qv-event";
constexpr char kVideoPrefix[] = "/dev/video";

std::string VideoPath(int node) { return kVideoPrefix + std::to_string(node); }

// Changes whenever the file is replaced; 0 when there is none.
int64_t StampOf(const std::string& path) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) return 0;
    return static_cast<int64_t>(status.st_mtim.tv_sec) * 1'000'000'000 + status.st_mtim.tv_nsec +
           static_cast<int64_t>(status.st_ino);
}

}  // namespace

std::shared_ptr<Model> Model::Load(const std::string& dir, std::string& error) {
    std::shared_ptr<Model> model(new Model);
    error = model->Build(dir);
    return error.empty() ? model : nullptr;
}

Model::~Model() { ShutDown(); }

std::string Model::Build(const std::string& dir) {
    dir_ = dir;
    if (std::string error = LoadState(dir, state_); !error.empty()) return error;
    stateStamp_ = StampOf(StatePath(dir));
    for (BoardState& board : state_.boards)
        if (std::string error = BuildBoard(board); !error.empty()) return error;
    for (const Fault& fault : state_.faults) faults_.Add(fault);
    return journal_.Open(dir);
}

std::string Model::BuildBoard(BoardState& state) {
    auto board = std::make_unique<Board>();
    board->state = &state;
    for (size_t i = 0; i < state.channels.size(); ++i) {
        if (i == 0 || !state.sharedFlash) {
            auto flash = std::make_unique<NorFlash>();
            const std::string path = dir_ + "/" + FlashFileName(state, static_cast<int>(i));
            if (std::string error = flash->Open(path, state.flashSize); !error.empty())
                return error;
            board->flashes.push_back(std::move(flash));
        }
        auto channel = std::make_unique<Channel>();
        channel->board = board.get();
        channel->state = &state.channels[i];
        channel->index = static_cast<int>(i);
        channel->flash = board->flashes.back().get();
        channel->settings.Load(ReadText(SettingsPath(*channel)));
        channels_.push_back(std::move(channel));
    }
    boards_.push_back(std::move(board));
    return {};
}

std::string Model::SettingsPath(const Channel& channel) const {
    return dir_ + "/settings-b" + std::to_string(channel.board->state->index) + "-c" +
           std::to_string(channel.index);
}

bool Model::Answers(const char* path) {
    if (std::strcmp(path, kEventPath) == 0) return true;
    constexpr size_t prefix = sizeof kVideoPrefix - 1;
    if (std::strncmp(path, kVideoPrefix, prefix) != 0 || path[prefix] == '\0') return false;
    return std::strspn(path + prefix, "0123456789") == std::strlen(path + prefix);
}

Channel* Model::ChannelOfNode(const std::string& path) {
    for (const auto& channel : channels_)
        if (VideoPath(channel->state->node) == path) return channel.get();
    return nullptr;
}

bool Model::Exists(const std::string& path) {
    const std::string name = path.substr(std::min<size_t>(path.size(), 5));  // behind "/dev/"
    const std::vector<std::string> names = NodeNames();
    return std::find(names.begin(), names.end(), name) != names.end();
}

std::vector<std::string> Model::NodeNames() {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> names;
    for (const auto& channel : channels_)
        if (!channel->gone) names.push_back("video" + std::to_string(channel->state->node));
    for (const int node : state_.foreignNodes) names.push_back("video" + std::to_string(node));
    if (state_.eventNode) names.push_back("qv-event");
    return names;
}

std::shared_ptr<OpenFile> Model::Open(const std::string& path, int& error) {
    const std::lock_guard lock(mutex_);
    RefreshFromDisk();
    auto file = std::make_shared<OpenFile>();
    file->path = path;
    file->channel = ChannelOfNode(path);
    error = shutDown_ ? ENODEV : 0;
    if (path == kEventPath) {
        file->kind = NodeKind::kEvents;
        if (!state_.eventNode) error = ENOENT;
    } else if (file->channel) {
        file->kind = NodeKind::kChannel;
        if (file->channel->gone) error = ENODEV;
    } else if (std::none_of(state_.foreignNodes.begin(), state_.foreignNodes.end(),
                            [&](int node) { return VideoPath(node) == path; })) {
        error = ENOENT;
    }
    if (error) return nullptr;
    const int board = file->channel ? file->channel->board->state->index : -1;
    const int channel = file->channel ? file->channel->index : -1;
    for (const FaultEffect& effect : faults_.Hits("open", board, channel)) {
        if (effect.kind == FaultKind::kRefuse) error = static_cast<int>(effect.value);
        if (effect.kind == FaultKind::kNodeGone && file->channel) {
            file->channel->gone = true;
            error = ENODEV;
        }
        if (effect.kind == FaultKind::kPowerLoss && file->channel) LosePower(*file->channel->board);
    }
    if (error) return nullptr;
    files_.push_back(file);
    Kick();  // a signal's script may have begun
    return file;
}

void Model::JournalOpen(const std::string& path, int descriptor, int error) {
    const std::lock_guard lock(mutex_);
    if (error)
        journal_.Write("open " + path, Refused(error));
    else
        journal_.Write("open " + path + " fd=" + std::to_string(descriptor), Ok());
}

void Model::Close(const std::shared_ptr<OpenFile>& file, int descriptor) {
    Lock lock(mutex_);
    if (file->channel) media_.DropOwner(lock, *file->channel, file.get());
    notifications_.DropOwner(file.get());
    timers_.DropOwner(file.get());
    events_.DropOwner(file.get());
    std::erase(files_, file);
    // Best effort: a directory that cannot be written loses settings, not requests.
    if (file->channel && file->channel->settings.Changed())
        ReplaceFile(SettingsPath(*file->channel), file->channel->settings.Save());
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
    RefreshFromDisk();
    for (const auto& board : boards_)
        for (const auto& flash : board->flashes) flash->Reload();
    for (const auto& channel : channels_) {
        const uint32_t version =
            LoadFirmware(*channel->flash, channel->state->storage.firmwareOffset,
                         channel->board->state->goldenVersion);
        channel->state->info.firmwareVersion = version;
        channel->board->state->powerLost = false;
        channel->gone = false;
        channel->settings.Reset();
        ReplaceFile(SettingsPath(*channel), channel->settings.Save());
    }
    SaveChanges();
}

void Model::LosePower(Board& board) {
    board.state->powerLost = true;
    SaveChanges();
}

void Model::SaveChanges() {
    // A state file that cannot be written leaves this process right and the next one behind; the
    // next load reports what is wrong with the directory.
    SaveState(dir_, state_);
    stateStamp_ = StampOf(StatePath(dir_));
}

// Another process may have cut or cycled the power since the file was last read.
void Model::RefreshFromDisk() {
    const int64_t stamp = StampOf(StatePath(dir_));
    if (stamp == stateStamp_) return;
    stateStamp_ = stamp;
    CardsState fresh;
    if (!LoadState(dir_, fresh).empty() || fresh.boards.size() != state_.boards.size()) return;
    for (size_t b = 0; b < fresh.boards.size(); ++b) {
        BoardState& board = state_.boards[b];
        if (fresh.boards[b].channels.size() != board.channels.size()) continue;
        board.powerLost = fresh.boards[b].powerLost;
        for (size_t c = 0; c < board.channels.size(); ++c)
            board.channels[c].info = fresh.boards[b].channels[c].info;
    }
}

void Model::AddFault(const Fault& fault) {
    const std::lock_guard lock(mutex_);
    faults_.Add(fault);
}

void Model::ClearFaults() {
    const std::lock_guard lock(mutex_);
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

void Model::SetRecord(int board, int channel, const std::string& key, const Bytes& record) {
    const std::lock_guard lock(mutex_);
    if (Channel* found = FindChannel(board, channel)) found->settings.Put(key, record);
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
