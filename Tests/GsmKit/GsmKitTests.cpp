#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Foundation/JsonValue.h"
#include "QVGsmKit/CoreCommandBuilder.h"
#include "QVGsmKit/GsmAsyncRequests.h"
#include "QVGsmKit/GsmResultCodes.h"
#include "QVGsmKit/NullGsmBackend.h"
#include "QVGsmKit/ScriptedGsmBackend.h"
#include "RunLoop/VirtualRunLoop.h"
#include "modem_query_tools/ModemQueryTools.h"

namespace {

// What one listener call brought, and when (virtual seconds) and on which thread it came.
struct Heard {
    std::int32_t code;
    qv::Value data;
    bool hadData;
    std::int32_t complete;
    double at;
    std::thread::id thread;
};

struct Listening {
    std::shared_ptr<qv::VirtualRunLoop> loop;
    std::vector<Heard> heard;
};

void listen(std::int32_t code, void* context, qv::Value* data) {
    auto* listening = static_cast<Listening*>(context);
    listening->heard.push_back(Heard{code, data != nullptr ? std::move(*data) : qv::Value(),
                                     data != nullptr, -1, listening->loop->now(),
                                     std::this_thread::get_id()});
}

void listenNetwork(std::int32_t code, void* context, qv::Value* data, std::int32_t complete) {
    listen(code, context, data);
    static_cast<Listening*>(context)->heard.back().complete = complete;
}

class GsmKitTest : public ::testing::Test {
  protected:
    void SetUp() override {
        loop_ = std::make_shared<qv::VirtualRunLoop>();
        qv::RunLoop::setCurrent(loop_);
        listening_.loop = loop_;
    }
    void TearDown() override {
        qv::GsmBackend::setCurrent(nullptr);
        qv::RunLoop::setCurrent(nullptr);
    }

    std::shared_ptr<qv::ScriptedGsmBackend> install(const std::string& json) {
        std::string error;
        auto value = qv::valueFromJson(qv::Json::parse(json), "modems", &error);
        EXPECT_TRUE(value.has_value()) << error;
        auto backend = qv::ScriptedGsmBackend::fromDescription(*value, &error);
        EXPECT_NE(backend, nullptr) << error;
        qv::GsmBackend::setCurrent(backend);
        return backend;
    }

    std::shared_ptr<qv::VirtualRunLoop> loop_;
    Listening listening_;
};

TEST_F(GsmKitTest, CommandsAnswerPerPortAndBlockForTheLatency) {
    auto backend = install(R"({
        "ttyUSB0": {"identify": {"error": 12}},
        "ttyUSB2": {"identify": {"deviceId": 241}, "latency": 1.5,
                    "modelInfo": {"pmn": "Mobile Connect", "model": "E220"}}
    })");
    CoreCommandBuilder builder;
    EXPECT_EQ(builder.createCmd(4), nullptr);

    auto identify = builder.createCmd(CoreCommandBuilder::kDeviceIdentification);
    ASSERT_NE(identify, nullptr);
    EXPECT_EQ(identify->error(), kGsmErrorNotExecuted);
    EXPECT_EQ(identify->executeCommand("/dev/cu.ttyUSB0", -1), 12);
    EXPECT_EQ(identify->getDeviceId(), 0);
    EXPECT_EQ(identify->executeCommand("/dev/cu.ttyUSB9", -1), kGsmErrorPortUnavailable);
    EXPECT_DOUBLE_EQ(loop_->now(), 0.0);
    EXPECT_EQ(identify->executeCommand("/dev/cu.ttyUSB2", -1), 0);
    EXPECT_EQ(identify->error(), 0);
    EXPECT_EQ(identify->getDeviceId(), 241);
    EXPECT_DOUBLE_EQ(loop_->now(), 1.5);   // the probe blocked for the port's latency
    EXPECT_TRUE(identify->pmn().isNil());  // not this command's answer

    auto info = builder.createCmd(CoreCommandBuilder::kModelInformation);
    EXPECT_EQ(info->executeCommand("/dev/cu.ttyUSB2", 241), 0);
    EXPECT_EQ(info->pmn(), qv::Value("Mobile Connect"));
    EXPECT_TRUE(info->manSpecificNumber().isNil());  // the modem did not say
    EXPECT_EQ(info->model(), qv::Value("E220"));
    // A described port that leaves the command out does not answer it.
    EXPECT_EQ(info->executeCommand("/dev/cu.ttyUSB0", 241), kGsmErrorNoResponse);
    EXPECT_TRUE(info->model().isNil());

    auto calls = backend->calls();
    ASSERT_EQ(calls.size(), 5u);
    EXPECT_EQ(calls[2].operation, "identify");
    EXPECT_EQ(calls[2].portPath, "/dev/cu.ttyUSB2");
    EXPECT_EQ(calls[2].deviceId, -1);
    EXPECT_EQ(calls[2].answer.data["deviceId"], qv::Value(241));
    EXPECT_EQ(calls[3].operation, "modelInfo");
    EXPECT_EQ(calls[3].deviceId, 241);
    EXPECT_EQ(calls[3].answer.data["model"], qv::Value("E220"));
    EXPECT_FALSE(calls[3].answer.data.asDictionary()->contains("manSpecificNumber"));
    EXPECT_EQ(calls[4].answer.code, kGsmErrorNoResponse);
}

TEST_F(GsmKitTest, RequestsAnswerLaterOnTheRequestingLoop) {
    auto backend = install(R"({
        "ttyUSB2": {"groundInit": 7, "latency": 2,
                    "deviceInfo": {"IMEI": "356", "Firmware": "11.608"},
                    "networkInfo": [{"code": 7, "complete": 0},
                                    {"code": 7, "complete": 1, "info": {"Operator": "Vodafone"}},
                                    {"code": 19}]}
    })");
    std::vector<std::string> observed;
    backend->setObserver(
        [&](const qv::ScriptedGsmBackend::Call& call) { observed.push_back(call.operation); });
    const char* script = "ATE1;V1\r\n[L2N]AT&F\r\n[L2N]AT+CMEE=1\r\n";

    EXPECT_EQ(startGroundInitEx(241, "ttyUSB2", script, &listen, &listening_), 1);
    EXPECT_EQ(getTheDeviceInfo(241, "ttyUSB2", &listen, &listening_), 1);
    EXPECT_TRUE(listening_.heard.empty());  // never from inside the request
    loop_->runUntil(1.9);
    EXPECT_TRUE(listening_.heard.empty());
    loop_->runUntil(2.0);
    ASSERT_EQ(listening_.heard.size(), 2u);
    EXPECT_EQ(listening_.heard[0].code, kGsmResultSuccess);
    EXPECT_FALSE(listening_.heard[0].hadData);
    EXPECT_EQ(listening_.heard[1].code, kGsmResultSuccess);
    EXPECT_EQ(listening_.heard[1].data["Firmware"], qv::Value("11.608"));
    EXPECT_DOUBLE_EQ(listening_.heard[1].at, 2.0);

    // Network information walks its list, one answer per request; the last one repeats.
    listening_.heard.clear();
    for (int i = 0; i < 4; ++i) {
        startGetNetworkInfoEx(241, "ttyUSB2", &listenNetwork, &listening_);
        loop_->runFor(2.0);
    }
    ASSERT_EQ(listening_.heard.size(), 4u);
    EXPECT_EQ(listening_.heard[0].complete, 0);
    EXPECT_FALSE(listening_.heard[0].hadData);
    EXPECT_EQ(listening_.heard[1].complete, 1);
    EXPECT_EQ(listening_.heard[1].data["Operator"], qv::Value("Vodafone"));
    EXPECT_EQ(listening_.heard[2].code, 19);
    EXPECT_EQ(listening_.heard[3].code, 19);

    auto calls = backend->calls();
    ASSERT_EQ(calls.size(), 6u);
    EXPECT_EQ(calls[0].script, script);
    EXPECT_EQ(calls[0].portPath, "/dev/cu.ttyUSB2");
    EXPECT_EQ(observed, (std::vector<std::string>{"groundInit", "deviceInfo", "networkInfo",
                                                  "networkInfo", "networkInfo", "networkInfo"}));

    // Ports that are not described, or requests without a port, get no modem.
    listening_.heard.clear();
    EXPECT_EQ(startGroundInitEx(241, "ttyUSB7", script, &listen, &listening_), 1);
    EXPECT_EQ(startGetNetworkInfoEx(241, nullptr, &listenNetwork, &listening_), 0);
    EXPECT_EQ(getTheDeviceInfo(241, "", &listen, &listening_), 0);
    loop_->runPending();
    ASSERT_EQ(listening_.heard.size(), 1u);
    EXPECT_EQ(listening_.heard[0].code, kGsmErrorPortUnavailable);
}

TEST_F(GsmKitTest, NullBackendReachesNoModem) {
    qv::GsmBackend::setCurrent(nullptr);
    EXPECT_NE(std::dynamic_pointer_cast<qv::NullGsmBackend>(qv::GsmBackend::current()), nullptr);
    auto identify = CoreCommandBuilder().createCmd(CoreCommandBuilder::kDeviceIdentification);
    EXPECT_EQ(identify->executeCommand("/dev/cu.ttyUSB0", -1), kGsmErrorPortUnavailable);

    EXPECT_EQ(startGetNetworkInfoEx(241, "ttyUSB0", &listenNetwork, &listening_), 1);
    EXPECT_TRUE(listening_.heard.empty());
    loop_->runPending();
    ASSERT_EQ(listening_.heard.size(), 1u);
    EXPECT_EQ(listening_.heard[0].code, kGsmErrorPortUnavailable);
    EXPECT_EQ(listening_.heard[0].complete, 1);

    // The model texts are not wired to the device knowledge yet: the documented empty answer.
    EXPECT_STREQ(getDeviceName(241), "");
    EXPECT_STREQ(getDeviceType(-1), "");
}

// A backend that answers from a thread of its own, as the AT engine will.
class ThreadedBackend : public qv::NullGsmBackend {
  public:
    bool startGroundInit(const qv::GsmRequest&, const std::string&,
                         qv::GsmAnswerHandler answer) override {
        worker_ = std::thread([answer] {
            qv::GsmAnswer done;
            done.code = kGsmResultSuccess;
            answer(done);
        });
        return true;
    }
    void join() { worker_.join(); }

  private:
    std::thread worker_;
};

TEST_F(GsmKitTest, AnswersFromAnotherThreadArriveOnTheRequestingThread) {
    auto backend = std::make_shared<ThreadedBackend>();
    qv::GsmBackend::setCurrent(backend);
    EXPECT_EQ(startGroundInitEx(241, "ttyUSB2", "AT\r\n", &listen, &listening_), 1);
    backend->join();
    EXPECT_TRUE(listening_.heard.empty());
    loop_->runPending();
    ASSERT_EQ(listening_.heard.size(), 1u);
    EXPECT_EQ(listening_.heard[0].code, kGsmResultSuccess);
    EXPECT_EQ(listening_.heard[0].thread, std::this_thread::get_id());
}

// A backend that keeps its answer until the test hands it over.
class HoldingBackend : public qv::NullGsmBackend {
  public:
    bool startGroundInit(const qv::GsmRequest&, const std::string&,
                         qv::GsmAnswerHandler answer) override {
        held = std::move(answer);
        return true;
    }
    qv::GsmAnswerHandler held;
};

// An answer still waiting when its requesting loop ends (the thread is done with it) has nobody
// to hear it: it must neither keep the loop alive nor reach a loop that is gone.
TEST_F(GsmKitTest, AnswersOutlivingTheirLoopAreDropped) {
    install(R"({"ttyUSB2": {"groundInit": 7, "latency": 2}})");
    EXPECT_EQ(startGroundInitEx(241, "ttyUSB2", "AT\r\n", &listen, &listening_), 1);
    auto holding = std::make_shared<HoldingBackend>();
    qv::GsmBackend::setCurrent(holding);
    EXPECT_EQ(startGroundInitEx(241, "ttyUSB2", "AT\r\n", &listen, &listening_), 1);

    std::weak_ptr<qv::VirtualRunLoop> weakLoop = loop_;
    qv::RunLoop::setCurrent(nullptr);
    listening_.loop.reset();
    loop_.reset();
    EXPECT_TRUE(weakLoop.expired());  // the scripted answer's timer did not hold it
    ASSERT_TRUE(holding->held);
    holding->held(qv::GsmAnswer{});  // finds no loop to deliver to
    EXPECT_TRUE(listening_.heard.empty());
}

}  // namespace
