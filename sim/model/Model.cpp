// Opens, sleeps and the thread that keeps time. The cards are in LiveCards, requests in Protocol.
#include "Model.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace qvsim {
namespace {

constexpr char kFolder[] = "/dev/";
constexpr char kEventName[] = "qv-event";
constexpr char kVideoName[] = "video";

// How long this open has to wait now, if at all.
std::chrono::microseconds DelayOf(ParkedOpen& open, LiveCards& cards, const Channel* owner) {
    if (EffectOf(open.effects, FaultKind::kHang) && cards.Hangs(kOpen, owner)) return kHangLook;
    const auto slow = EffectOf(open.effects, FaultKind::kSlow);
    if (!slow || std::exchange(open.slept, true)) return {};
    return std::chrono::milliseconds(*slow);
}

}  // namespace

std::string Model::Load(const std::string& dir, std::shared_ptr<Model>& out) {
    std::shared_ptr<Model> model(new Model);
    if (std::string error = model->m_cards.Load(dir); !error.empty()) return error;
    out = std::move(model);
    return {};
}

std::string Model::InMemory(CardsState state, std::shared_ptr<Model>& out) {
    std::shared_ptr<Model> model(new Model);
    if (std::string error = model->m_cards.LayOut(std::move(state)); !error.empty()) return error;
    out = std::move(model);
    return {};
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

std::shared_ptr<OpenFile> Model::Open(const std::string& path, int& error, ParkedOpen* parked) {
    Locked cards(*this);
    cards->CatchUp(nullptr);
    Channel* const owner = cards->ChannelOfNode(path);
    error = cards->OpenError(path, owner);
    if (!error && !cards->HasRoom()) error = ENOSPC;
    if (error) return nullptr;
    ParkedOpen sleeping;
    ParkedOpen& open = parked ? *parked : sleeping;
    if (!std::exchange(open.counted, true)) open.effects = cards->MeetFaults(kOpen, owner);
    while ((open.delay = DelayOf(open, *cards.operator->(), owner)).count() > 0) {
        if (parked) return nullptr;
        cards.Sleep(open.delay);
        cards->CatchUp(nullptr);
    }
    if (EffectOf(open.effects, FaultKind::kSlow)) cards->NoteMet(FaultKind::kSlow, kOpen, owner);
    error = cards->OpenFault(path, open.effects, owner);
    if (cards->IsShutDown()) error = ENODEV;
    if (error) return nullptr;
    std::shared_ptr<OpenFile> file = cards->AddFile(path, {});
    cards.Kick();  // a signal's script may have begun
    return file;
}

void Model::Close(const std::shared_ptr<OpenFile>& file, int descriptor) {
    Locked cards(*this);
    cards->Close(cards.Lock(), file, descriptor);
}

void Model::BeginInChild() {
    // Neither is in use, and their contents are not valid here.
    new (&m_timeChanged) std::condition_variable;
    new (&m_timekeeper) std::thread;
    m_cards.BeginInChild();
}

void Model::RaiseNotification(int board, int channel, uint64_t bits) {
    const Locked cards(*this);
    if (Channel* const found = cards->FindChannel(board, channel))
        cards->Notifies().Raise(found, bits, cards->Events());
}

void Model::SetSignal(int board, int channel, bool present) {
    const Locked cards(*this);
    if (Channel* const found = cards->FindChannel(board, channel))
        cards->Media().SetSignal(*found, present, cards->Now());
}

void Model::InterruptFrame(int board, int channel) {
    const Locked cards(*this);
    if (Channel* const found = cards->FindChannel(board, channel)) cards->Media().Interrupt(*found);
}

NorFlash* Model::Flash(int board, int channel) {
    const Channel* const found = Locked(*this)->FindChannel(board, channel);
    return found ? found->flash : nullptr;
}

void Model::AdvanceClock(int64_t units) {
    Locked cards(*this);
    cards->Time().Advance(units);
    cards.Kick();
}

void Model::Locked::Sleep(std::chrono::microseconds time) {
    m_lock.unlock();
    std::this_thread::sleep_for(time);
    m_lock.lock();
}

void Model::Locked::Kick() {
    LiveCards& cards = m_model.m_cards;
    const bool somethingComes = cards.RunDue().has_value();
    if (somethingComes && !m_model.m_timekeeper.joinable() && !cards.Time().Frozen() &&
        !cards.IsShutDown())
        m_model.m_timekeeper = QuietThread([model = &m_model] { model->KeepTime(); });
    m_model.m_timeChanged.notify_all();
}

void Model::KeepTime() {
    constexpr int64_t kLongestSleep = 60 * kClockUnitsPerSecond;
    Locked cards(*this);
    while (!cards->IsShutDown()) {
        const std::optional<int64_t> next = cards->RunDue();
        if (!next || cards->Time().Frozen()) {
            m_timeChanged.wait(cards.Lock());
        } else {
            const int64_t units = std::min(*next, kLongestSleep);
            m_timeChanged.wait_for(cards.Lock(), std::chrono::nanoseconds(units * 100));
        }
    }
}

void Model::ShutDown() {
    Locked(*this)->ShutDown();
    m_timeChanged.notify_all();
    if (m_timekeeper.joinable()) m_timekeeper.join();
    m_cards.Media().Stop();
}

}  // namespace qvsim
