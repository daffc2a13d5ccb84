// The transport that a program supplies: when it is taken, when its functions are called, and that
// nothing it returns breaks the list or a channel. Public functions alone.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "QVCapture.h"
#include "lib/FakeV4l2.h"
#include "support/Recorder.h"

using testing::ElementsAre;

namespace {

// A transport that writes down what is asked of it.
class Transport {
  public:
    Transport() {
        table.size = sizeof table;
        table.start = [](void* user) { return Me(user)->Note("start", Me(user)->startResult); };
        table.stop = [](void* user) { Me(user)->Note("stop", 0); };
        table.find = [](_QVUSBCAP_CHANNEL_ENTRY* entries, int capacity, void* user) {
            Transport* const me = Me(user);
            me->room = capacity;
            for (size_t i = 0; i < me->found.size() && i < 64; ++i) entries[i] = me->found[i];
            return me->Note("find", me->findResult);
        };
        table.open = [](const char* path, QV_USB_DEVICE* device, void* user) {
            device->handle = Me(user)->handle;
            memset(device->usbBus, 'b', sizeof device->usbBus);
            memset(device->serial, 's', sizeof device->serial);
            return Me(user)->Note(std::string("open ") + path, Me(user)->openResult);
        };
        table.close = [](void*, void* user) { Me(user)->Note("close", 0); };
        table.get = [](void*, unsigned char command, void* data, unsigned int size, void* user) {
            memset(data, 0x41, size);
            return Me(user)->Note("get " + std::to_string(command), Me(user)->transferResult);
        };
        table.set = [](void*, unsigned char command, void*, unsigned int, unsigned int answered,
                       void* user) {
            return Me(user)->Note("set " + std::to_string(command) + " " + std::to_string(answered),
                                  Me(user)->transferResult);
        };
    }
    void List(const std::vector<std::string>& paths) {
        found.clear();
        for (const std::string& path : paths) {
            found.push_back({});
            memcpy(found.back().path, path.data(), std::min<size_t>(path.size(), 512));
        }
        findResult = static_cast<int>(paths.size());
    }
    std::vector<std::string> Taken() {
        const std::lock_guard guard(m_mutex);
        return std::exchange(m_calls, {});
    }

    QV_USB_TRANSPORT table{};
    std::vector<_QVUSBCAP_CHANNEL_ENTRY> found;
    int startResult = 0, findResult = 0, openResult = 0, transferResult = 0;
    int room = 0;
    void* handle = this;

  private:
    static Transport* Me(void* user) { return static_cast<Transport*>(user); }
    int Note(const std::string& call, int result) {
        const std::lock_guard guard(m_mutex);
        m_calls.push_back(call);
        return result;
    }
    std::mutex m_mutex;
    std::vector<std::string> m_calls;
};

class UsbTransportTest : public testing::Test {
  protected:
    UsbTransportTest() {
        fake::V4l2::Get().Reset();
        transport.List({"one", "two"});
    }
    ~UsbTransportTest() override {
        QVCaptureExitInstance();
        EXPECT_EQ(QV_RESULT_OK, QVSetUSBTransport(nullptr, nullptr)) << "still in use";
    }
    void Begin() {
        ASSERT_EQ(QV_RESULT_OK, QVSetUSBTransport(&transport.table, &transport));
        ASSERT_TRUE(QVCaptureInitInstance());
    }
    Transport transport;
};

// ---- when it is taken

TEST_F(UsbTransportTest, WithoutOneNothingIsListedAndNothingIsCalled) {
    ASSERT_EQ(QV_RESULT_OK, QVSetUSBTransport(&transport.table, &transport));
    ASSERT_EQ(QV_RESULT_OK, QVSetUSBTransport(nullptr, nullptr));
    QVCaptureInitInstance();
    EXPECT_EQ(0, QVGetChannelCount());
    EXPECT_EQ(nullptr, QVOpenChannelByPath("one"));
    EXPECT_THAT(transport.Taken(), ElementsAre());
}

TEST_F(UsbTransportTest, ItIsCopiedSoThatTheTableMayGo) {
    ASSERT_EQ(QV_RESULT_OK, QVSetUSBTransport(&transport.table, &transport));
    memset(static_cast<void*>(&transport.table), 0xCC, sizeof transport.table);
    QVCaptureInitInstance();
    EXPECT_EQ(2, QVGetChannelCount());
}

TEST_F(UsbTransportTest, ItIsRefusedWhileThereIsAnInstanceWithOrWithoutATransport) {
    QVCaptureInitInstance();
    EXPECT_EQ(QV_RESULT_FAILED, QVSetUSBTransport(&transport.table, &transport));
    EXPECT_EQ(QV_RESULT_FAILED, QVSetUSBTransport(nullptr, nullptr));
    QVCaptureExitInstance();
    Begin();
    EXPECT_EQ(QV_RESULT_FAILED, QVSetUSBTransport(nullptr, nullptr));
    QVRefreshDevice();
    EXPECT_EQ(2, QVGetChannelCount()) << "the one that was there still is";
}

TEST_F(UsbTransportTest, AnIncompleteOneIsABadArgumentAndNothingChanges) {
    ASSERT_EQ(QV_RESULT_OK, QVSetUSBTransport(&transport.table, &transport));
    const auto refused = [&](auto spoil) {
        QV_USB_TRANSPORT table = transport.table;
        spoil(table);
        return QVSetUSBTransport(&table, nullptr) == QV_RESULT_BAD_ARGUMENT;
    };
    EXPECT_TRUE(refused([](QV_USB_TRANSPORT& table) { table.size = 0; }));
    EXPECT_TRUE(refused([](QV_USB_TRANSPORT& table) { --table.size; }));
    EXPECT_TRUE(refused([](QV_USB_TRANSPORT& table) { table.find = nullptr; }));
    EXPECT_TRUE(refused([](QV_USB_TRANSPORT& table) { table.open = nullptr; }));
    EXPECT_TRUE(refused([](QV_USB_TRANSPORT& table) { table.close = nullptr; }));
    EXPECT_TRUE(refused([](QV_USB_TRANSPORT& table) { table.get = nullptr; }));
    EXPECT_TRUE(refused([](QV_USB_TRANSPORT& table) { table.set = nullptr; }));
    QVCaptureInitInstance();
    EXPECT_EQ(2, QVGetChannelCount());
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVGetDevicePath(2, nullptr));
}

TEST_F(UsbTransportTest, StartStopAndWatchingMayBeMissing) {
    transport.table.start = nullptr;
    transport.table.stop = nullptr;
    Begin();
    EXPECT_EQ(2, QVGetChannelCount());
    QVCaptureExitInstance();
    EXPECT_THAT(transport.Taken(), ElementsAre("find"));
}

TEST_F(UsbTransportTest, ALaterAndLargerTableIsTaken) {
    transport.table.size += 64;
    Begin();
    EXPECT_EQ(2, QVGetChannelCount());
}

// ---- life

TEST_F(UsbTransportTest, ItStartsWithTheInstanceAndStopsWithIt) {
    Begin();
    EXPECT_THAT(transport.Taken(), ElementsAre("start", "find"));
    QVCaptureInitInstance();
    QVRefreshDevice();
    EXPECT_THAT(transport.Taken(), ElementsAre("find", "find")) << "started once";
    QVCaptureExitInstance();
    QVCaptureExitInstance();
    EXPECT_THAT(transport.Taken(), ElementsAre("stop"));
    QVCaptureInitInstance();
    EXPECT_THAT(transport.Taken(), ElementsAre("start", "find"));
}

TEST_F(UsbTransportTest, ItStopsWhenTheLastChannelThatOutlivesTheInstanceIsClosed) {
    Begin();
    const QV_CHANNEL one = QVOpenChannelByPath("one");
    const QV_CHANNEL two = QVOpenChannelByPath("two");
    QVCaptureExitInstance();
    EXPECT_EQ(QV_RESULT_FAILED, QVSetUSBTransport(nullptr, nullptr)) << "channels are open";
    transport.Taken();
    EXPECT_EQ(QV_RESULT_OK, QVSetLEDMode(one, 1)) << "and work";
    QVCloseChannel(one);
    EXPECT_THAT(transport.Taken(), ElementsAre("set 5 0", "close"));
    QVCloseChannel(two);
    EXPECT_THAT(transport.Taken(), ElementsAre("close", "stop"));
    EXPECT_EQ(QV_RESULT_OK, QVSetUSBTransport(nullptr, nullptr));
}

TEST_F(UsbTransportTest, AnInstanceThatBeginsWhileAChannelIsOpenFindsItStarted) {
    Begin();
    const QV_CHANNEL one = QVOpenChannelByPath("one");
    QVCaptureExitInstance();
    transport.Taken();
    QVCaptureInitInstance();
    QVCloseChannel(one);
    EXPECT_THAT(transport.Taken(), ElementsAre("find", "close"));
}

TEST_F(UsbTransportTest, OneThatCannotStartIsAskedNothingElse) {
    transport.startResult = -1;
    Begin();
    QVRefreshDevice();
    EXPECT_EQ(0, QVGetChannelCount());
    EXPECT_EQ(nullptr, QVOpenChannelByPath("one"));
    QVCaptureExitInstance();
    EXPECT_THAT(transport.Taken(), ElementsAre("start"));
    transport.startResult = 0;
    QVCaptureInitInstance();
    EXPECT_EQ(2, QVGetChannelCount());
}

// ---- the list

TEST_F(UsbTransportTest, EntriesWithoutAPathAreLeftOut) {
    transport.List({"one", "", "three"});
    transport.findResult = 5;  // two more than it filled in
    Begin();
    EXPECT_EQ(2, QVGetChannelCount());
    char path[512] = {};
    EXPECT_EQ(QV_RESULT_OK, QVGetDevicePath(1, path));
    EXPECT_STREQ("three", path);
}

TEST_F(UsbTransportTest, MoreDevicesThanTheListHoldsAreCutOff) {
    std::vector<std::string> paths;
    for (int i = 0; i < 100; ++i) paths.push_back("device " + std::to_string(i));
    transport.List(paths);
    Begin();
    EXPECT_EQ(64, transport.room);
    EXPECT_EQ(64, QVGetChannelCount());
}

TEST_F(UsbTransportTest, APathWithoutEndIsCutAndOpensUnderWhatTheListSays) {
    transport.List({std::string(600, 'p')});
    Begin();
    char path[513];
    memset(path, 0xCC, sizeof path);
    EXPECT_EQ(QV_RESULT_OK, QVGetDevicePath(0, path));
    EXPECT_EQ(std::string(511, 'p'), path);
    EXPECT_EQ(static_cast<char>(0xCC), path[512]);
    const QV_CHANNEL channel = QVOpenChannelByPath(path);
    EXPECT_NE(nullptr, channel);
    QVCloseChannel(channel);
}

// ---- opening

TEST_F(UsbTransportTest, OnlyWhatIsListedIsOpened) {
    Begin();
    transport.Taken();
    EXPECT_EQ(nullptr, QVOpenChannelByPath("three"));
    EXPECT_EQ(nullptr, QVOpenChannelByPath(""));
    EXPECT_EQ(nullptr, QVOpenChannelByPath(nullptr));
    EXPECT_THAT(transport.Taken(), ElementsAre());
}

TEST_F(UsbTransportTest, ChannelsOfOnePathShareWhatWasOpened) {
    Begin();
    transport.Taken();
    const QV_CHANNEL first = QVOpenChannelByPath("one");
    const QV_CHANNEL second = QVOpenChannelByPath("one");
    const QV_CHANNEL other = QVOpenChannelByPath("two");
    EXPECT_THAT(transport.Taken(), ElementsAre("open one", "open two"));
    QVCloseChannel(first);
    EXPECT_THAT(transport.Taken(), ElementsAre());
    EXPECT_EQ(QV_RESULT_OK, QVSetLEDMode(second, 1));
    QVCloseChannel(other);
    QVCloseChannel(second);
    EXPECT_THAT(transport.Taken(), ElementsAre("set 5 0", "close", "close"));
    QVCloseChannel(QVOpenChannelByPath("one"));
    EXPECT_THAT(transport.Taken(), ElementsAre("open one", "close")) << "opened anew";
}

TEST_F(UsbTransportTest, WhatWasRefusedOrHasNoHandleIsNoChannelAndNotClosed) {
    Begin();
    transport.Taken();
    transport.openResult = -1;
    EXPECT_EQ(nullptr, QVOpenChannelByPath("one"));
    transport.openResult = 0;
    transport.handle = nullptr;
    EXPECT_EQ(nullptr, QVOpenChannelByPath("one"));
    EXPECT_THAT(transport.Taken(), ElementsAre("open one", "open one"));
    transport.handle = this;
    const QV_CHANNEL channel = QVOpenChannelByPath("one");
    EXPECT_NE(nullptr, channel);
    QVCloseChannel(channel);
}

// ---- transfers

TEST_F(UsbTransportTest, AnyResultThatIsNotNegativeIsASuccess) {
    Begin();
    const QV_CHANNEL channel = QVOpenChannelByPath("one");
    unsigned int source = 7;
    for (const int result : {0, 1, 1000000}) {
        transport.transferResult = result;
        EXPECT_EQ(QV_RESULT_OK, QVGetVideoInputSource(channel, &source));
        EXPECT_EQ(0x41414141u, source);
    }
    for (const int result : {-1, INT32_MIN}) {
        source = 7;
        transport.transferResult = result;
        EXPECT_EQ(QV_RESULT_FAILED, QVGetVideoInputSource(channel, &source));
        EXPECT_EQ(7u, source);
    }
    QVCloseChannel(channel);
}

TEST_F(UsbTransportTest, AReadAsksForAnAnswerAndAWriteDoesNot) {
    Begin();
    const QV_CHANNEL channel = QVOpenChannelByPath("one");
    unsigned char data[64] = {};
    unsigned int read = 0;
    transport.Taken();
    EXPECT_EQ(QV_RESULT_OK, QVReadFirmwareData(channel, 0, data, 64, &read));
    EXPECT_EQ(QV_RESULT_OK, QVWriteFirmwareData(channel, 0, data, 64));
    EXPECT_THAT(transport.Taken(),
                ElementsAre("set 242 0", "set 243 2056", "set 243 0", "set 244 1"));
    QVCloseChannel(channel);
}

TEST_F(UsbTransportTest, NothingFollowsAnAddressThatMayNotHaveArrived) {
    Begin();
    const QV_CHANNEL channel = QVOpenChannelByPath("one");
    unsigned char data[64] = {};
    unsigned int read = 0;
    transport.Taken();
    transport.transferResult = -1;
    EXPECT_EQ(QV_RESULT_FAILED, QVReadFirmwareData(channel, 0, data, 64, &read));
    EXPECT_THAT(transport.Taken(), ElementsAre("set 242 0"));
    QVCloseChannel(channel);
}

TEST_F(UsbTransportTest, NothingComesBetweenTheTwoTransfersOfAReadOfTheSameDevice) {
    Begin();
    const QV_CHANNEL channels[] = {QVOpenChannelByPath("one"), QVOpenChannelByPath("one")};
    transport.Taken();
    std::vector<std::thread> threads;
    for (const QV_CHANNEL channel : channels)
        threads.emplace_back([channel] {
            std::vector<unsigned char> data(64 * 200);
            unsigned int read = 0;
            for (int round = 0; round < 5; ++round) {
                EXPECT_EQ(QV_RESULT_OK,
                          QVReadFirmwareData(channel, 0, data.data(), 64 * 200, &read));
                EXPECT_EQ(QV_RESULT_OK, QVWriteFirmwareData(channel, 0, data.data(), 64));
                EXPECT_EQ(QV_RESULT_OK, QVSetLEDMode(channel, 1));
            }
        });
    for (std::thread& thread : threads) thread.join();
    const std::vector<std::string> calls = transport.Taken();
    ASSERT_EQ(2u * 5 * (400 + 2 + 1), calls.size());
    for (size_t i = 0; i < calls.size(); ++i) {
        if (calls[i] != "set 242 0") continue;
        ASSERT_EQ("set 243 2056", calls.at(i + 1)) << "at " << i;
    }
    for (const QV_CHANNEL channel : channels) QVCloseChannel(channel);
}

// ---- coming and going

// What happens is put in by the test; the watcher takes it out.
class Plugs {
  public:
    explicit Plugs(Transport* transport) {
        g_plugs = this;
        transport->table.hotPlug = [](int, _QVUSBHOT_PLUG_EVETN* event, char* path, void*) {
            return g_plugs->Take(event, path);
        };
    }
    void Happen(_QVUSBHOT_PLUG_EVETN event, const std::string& path) {
        const std::lock_guard guard(m_mutex);
        m_waiting.emplace_back(event, path);
    }
    static void Tell(_QVUSBHOT_PLUG_EVETN event, const char* path, void* param) {
        auto* me = static_cast<Plugs*>(param);
        if (me->endsItself) QVUnregisterUSBHotPlug();
        me->told.Add(std::to_string(event) + " " + path);
    }
    qvtest::Recorder<std::string> told;
    std::atomic<int> asked{0};
    std::atomic<int> failures{0};  // so many times watching fails
    std::atomic<bool> endsItself{false};

  private:
    int Take(_QVUSBHOT_PLUG_EVETN* event, char* path) {
        ++asked;
        if (failures > 0) return --failures, -1;
        {
            const std::lock_guard guard(m_mutex);
            if (!m_waiting.empty()) {
                *event = m_waiting.front().first;
                const std::string& text = m_waiting.front().second;
                memcpy(path, text.data(), std::min<size_t>(text.size(), 512));
                m_waiting.erase(m_waiting.begin());
                return 1;
            }
        }
        usleep(1000);
        return 0;
    }
    inline static Plugs* g_plugs;
    std::mutex m_mutex;
    std::vector<std::pair<_QVUSBHOT_PLUG_EVETN, std::string>> m_waiting;
};

class UsbHotPlugTest : public UsbTransportTest {
  protected:
    Plugs plugs{&transport};
};

TEST_F(UsbHotPlugTest, WhatComesAndGoesIsToldInOrder) {
    Begin();
    ASSERT_EQ(QV_RESULT_OK, QVRegisterUSBHotPlug(Plugs::Tell, &plugs));
    plugs.Happen(QVUSB_HOT_PLUG_ARRIVED, "three");
    plugs.Happen(QVUSB_HOT_PLUG_LEFT, std::string(600, 'p'));
    EXPECT_THAT(plugs.told.AwaitCount(2), ElementsAre("1 three", "2 " + std::string(511, 'p')));
    EXPECT_EQ(QV_RESULT_OK, QVUnregisterUSBHotPlug());
    const int asked = plugs.asked;
    usleep(5000);
    EXPECT_EQ(asked, plugs.asked) << "nobody watches any more";
    EXPECT_EQ(QV_RESULT_OK, QVUnregisterUSBHotPlug()) << "nothing to end";
}

TEST_F(UsbHotPlugTest, AWatchingThatFailsGoesOn) {
    plugs.failures = 2;
    plugs.Happen(QVUSB_HOT_PLUG_ARRIVED, "three");
    Begin();
    ASSERT_EQ(QV_RESULT_OK, QVRegisterUSBHotPlug(Plugs::Tell, &plugs));
    plugs.told.AwaitCount(1);
    EXPECT_EQ(QV_RESULT_OK, QVUnregisterUSBHotPlug());
    EXPECT_THAT(plugs.told.Items(), ElementsAre("1 three"));
}

TEST_F(UsbHotPlugTest, ACallbackThatEndsTheWatchingIsNotCalledAgainAndAnotherMayBegin) {
    Begin();
    plugs.endsItself = true;
    ASSERT_EQ(QV_RESULT_OK, QVRegisterUSBHotPlug(Plugs::Tell, &plugs));
    plugs.Happen(QVUSB_HOT_PLUG_ARRIVED, "three");
    plugs.Happen(QVUSB_HOT_PLUG_LEFT, "three");
    EXPECT_THAT(plugs.told.AwaitCount(1), ElementsAre("1 three"));
    plugs.endsItself = false;
    ASSERT_EQ(QV_RESULT_OK, QVRegisterUSBHotPlug(Plugs::Tell, &plugs));
    EXPECT_THAT(plugs.told.AwaitCount(2), ElementsAre("1 three", "2 three"));
}

TEST_F(UsbHotPlugTest, TheEndOfTheInstanceEndsTheWatching) {
    Begin();
    ASSERT_EQ(QV_RESULT_OK, QVRegisterUSBHotPlug(Plugs::Tell, &plugs));
    QVCaptureExitInstance();
    const int asked = plugs.asked;
    usleep(5000);
    EXPECT_EQ(asked, plugs.asked);
    EXPECT_EQ("stop", transport.Taken().back());
}

TEST_F(UsbHotPlugTest,
       WatchingIsRefusedWithoutInstanceWithoutCallbackTwiceAndByATransportThatCannot) {
    EXPECT_EQ(QV_RESULT_FAILED, QVRegisterUSBHotPlug(Plugs::Tell, &plugs)) << "no instance";
    Begin();
    EXPECT_EQ(QV_RESULT_BAD_ARGUMENT, QVRegisterUSBHotPlug(nullptr, &plugs));
    EXPECT_EQ(QV_RESULT_OK, QVRegisterUSBHotPlug(Plugs::Tell, &plugs));
    EXPECT_EQ(QV_RESULT_FAILED, QVRegisterUSBHotPlug(Plugs::Tell, &plugs)) << "somebody does";
    QVCaptureExitInstance();
    transport.table.hotPlug = nullptr;
    Begin();
    EXPECT_EQ(QV_RESULT_FAILED, QVRegisterUSBHotPlug(Plugs::Tell, &plugs)) << "cannot watch";
}

}  // namespace
