#include "BAS/EventHandler.h"
#include "BAS/Framework.h"
#include "BAS/MemoryLogSink.h"
#include "BAS/Message.h"
#include "BAS/MutexLocker.h"
#include "BAS/RegisteredObject.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

using BAS::Framework;
using BAS::Message;
using BAS::RegisteredObject;
using BAS::String;

bool registered(const RegisteredObject& object) {
  BAS::MutexLocker locker(RegisteredObject::isRegisteredLockerCM);
  return object.isRegistered();
}

bool valid(const RegisteredObject& object) {
  BAS::MutexLocker locker(RegisteredObject::isValidLockerCM);
  return object.isValid();
}

String rootName() {
  BAS::MutexLocker locker(RegisteredObject::rootNameLockerCM);
  return RegisteredObject::rootNameCM;
}

// Records the messages that reach it and answers requests with its name and the argument.
class Recorder : public RegisteredObject {
public:
  using RegisteredObject::RegisteredObject;
  void receiveMessage(const Message& message) override { received.push_back(message.messageId().str()); }
  bool receiveRequest(Message& request) override {
    request.answer() = {lockedName(), request.argument()};
    return true;
  }
  std::vector<std::string> received;
};

struct FrameworkTest : ::testing::Test {
  FrameworkTest() { framework.log().addSink(sink); }
  Framework framework;
  std::shared_ptr<BAS::MemoryLogSink> sink = std::make_shared<BAS::MemoryLogSink>();
};

TEST_F(FrameworkTest, RegistrationRefusesTakenEmptyAndRootNamesAndFreesNamesAtTheEnd) {
  EXPECT_EQ(rootName(), "Framework");
  {
    Recorder first("NumberPortability");
    EXPECT_TRUE(registered(first));
    EXPECT_TRUE(valid(first));
    {
      Recorder second("NumberPortability");
      EXPECT_FALSE(registered(second));
      EXPECT_FALSE(valid(second));
    }
    EXPECT_EQ(framework.findObject("NumberPortability"), &first) << "a refused duplicate must not unregister the first";
    Recorder unnamed("");
    Recorder root(rootName());
    EXPECT_FALSE(registered(unnamed));
    EXPECT_FALSE(registered(root));
  }
  EXPECT_EQ(framework.findObject("NumberPortability"), nullptr);
  Recorder again("NumberPortability");
  EXPECT_TRUE(registered(again));
  // A named object is usable while it is valid.
  EXPECT_TRUE(again.isUsable());
  {
    BAS::MutexLocker locker(RegisteredObject::isValidLockerCM);
    again.setValid(false);
  }
  EXPECT_FALSE(again.isUsable());
}

TEST(RegisteredObject, WithoutFrameworkNothingIsRegisteredSentOrLoggedExceptToStandardError) {
  ASSERT_EQ(Framework::current(), nullptr);
  Recorder object("Lonely");
  EXPECT_FALSE(registered(object));
  EXPECT_FALSE(object.isUsable());
  EXPECT_EQ(object.registry(), nullptr);
  Message request("Lonely", rootName(), "REQ_EVENTHANDLER_NAME", "");
  EXPECT_FALSE(RegisteredObject::sendRequest(request));
  Message message("Lonely", "Anyone", "EVT::X", "");
  EXPECT_FALSE(RegisteredObject::sendMessage(message));

  ::testing::internal::CaptureStderr();
  object.setStatus(BAS::Status("ERR_FILE_NOT_FOUND", BAS::Status::MAJOR, "np.txt"), true);
  const std::string written = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(written.find(" MAJOR(4) Lonely ERR_FILE_NOT_FOUND [\"np.txt\"] The file np.txt was not found.\n"),
            std::string::npos)
      << written;
}

TEST_F(FrameworkTest, RequestsReachTheRootOrTheirObject) {
  Message unconfigured("NP", rootName(), "REQ_EVENTHANDLER_NAME", "");
  EXPECT_FALSE(RegisteredObject::sendRequest(unconfigured));
  EXPECT_TRUE(unconfigured.answer().empty());
  framework.setEventHandlerName(String("EventHandler"));
  Message handlerName("NP", rootName(), "REQ_EVENTHANDLER_NAME", "");
  ASSERT_TRUE(RegisteredObject::sendRequest(handlerName));
  EXPECT_EQ(handlerName.answer(), std::vector<String>{"EventHandler"});
  Message other("NP", rootName(), "REQ_SOMETHING_ELSE", "");
  EXPECT_FALSE(RegisteredObject::sendRequest(other));
  framework.setEventHandlerName(std::nullopt);
  Message removed("NP", rootName(), "REQ_EVENTHANDLER_NAME", "");
  EXPECT_FALSE(RegisteredObject::sendRequest(removed));
  EXPECT_EQ(framework.findObject("EventHandler"), nullptr) << "the removed handler's name is released";

  Recorder target("Target");
  RegisteredObject silent("Silent");
  Message request("NP", "Target", "REQ_ECHO", "argument");
  ASSERT_TRUE(RegisteredObject::sendRequest(request));
  EXPECT_EQ(request.answer(), (std::vector<String>{"Target", "argument"}));
  Message toNobody("NP", "Nobody", "REQ_ECHO", "");
  EXPECT_FALSE(RegisteredObject::sendRequest(toNobody));
  Message unanswered("NP", "Silent", "REQ_ECHO", "");
  EXPECT_FALSE(RegisteredObject::sendRequest(unanswered));
}

TEST_F(FrameworkTest, MessagesAreDeliveredAndLoggedAsEvents) {
  framework.setEventHandlerName(String("First"));
  framework.setEventHandlerName(String("EventHandler"));  // replaces the first handler
  Message reload("NumberPortability", "EventHandler", "EVT::RELOAD_SUCCESSFUL", "");
  EXPECT_TRUE(RegisteredObject::sendMessage(reload));
  Message lost("NumberPortability", "First", "EVT::RELOAD_FAILED", "why");
  EXPECT_FALSE(RegisteredObject::sendMessage(lost));
  ASSERT_NE(framework.eventHandler(), nullptr);
  EXPECT_EQ(framework.eventHandler()->received(), 1u);

  const std::vector<std::string> lines = sink->lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_TRUE(lines[0].ends_with(" EVENT NumberPortability -> EventHandler EVT::RELOAD_SUCCESSFUL [\"\"] delivered"));
  EXPECT_TRUE(lines[1].ends_with(" EVENT NumberPortability -> First EVT::RELOAD_FAILED [\"why\"] not-delivered"));
}

// Sends on and registers an object while it is being delivered to, which deadlocks if the
// framework holds its own lock around the call.
class Forwarder : public RegisteredObject {
public:
  using RegisteredObject::RegisteredObject;
  void receiveMessage(const Message& message) override {
    Message onward(lockedName(), "Target", message.messageId(), message.argument());
    sendMessage(onward);
    Recorder late("Late");
  }
};

TEST_F(FrameworkTest, ReceiversMaySendAndRegisterWhileBeingDeliveredTo) {
  Forwarder forwarder("Forwarder");
  Recorder target("Target");
  Message message("NP", "Forwarder", "EVT::CHAIN", "x");
  EXPECT_TRUE(RegisteredObject::sendMessage(message));
  EXPECT_EQ(target.received, std::vector<std::string>{"EVT::CHAIN"});
  EXPECT_EQ(sink->count("EVT::CHAIN"), 2u);
}

TEST_F(FrameworkTest, SetStatusStoresAndLogsWithTheObjectsName) {
  Recorder object("NumberPortability");
  BAS::Status status;
  status.set("someone else", "ERR_INVALID_REG_VALUE", BAS::Status::CRITICAL,
             std::vector<String>{"MAYBE", "ReuseOnFailure"});
  object.setStatus(status, true);
  object.setStatus(BAS::Status("INF_FILE_OPENED", BAS::Status::NORMAL, "np.txt"), false);

  ASSERT_EQ(sink->lines().size(), 1u) << "a status set without log is not written";
  EXPECT_NE(sink->lines()[0].find(" CRITICAL(5) NumberPortability ERR_INVALID_REG_VALUE [\"MAYBE\", \"ReuseOnFailure\"] "),
            std::string::npos);
  BAS::MutexLocker locker(RegisteredObject::statusLockerCM);
  EXPECT_EQ(object.status().objectName(), "NumberPortability");
  EXPECT_EQ(object.status().messageId(), "INF_FILE_OPENED");
}

TEST_F(FrameworkTest, RegistryIsTheSubtreeAtTheDottedName) {
  framework.registry().child("NumberPortability").add("FileName", "old.txt");
  framework.registry().child("NumberPortability").add("FileName", "np.txt");  // a key is set, not repeated
  framework.registry().child("pipeline").child("np").add("CountryCode", "49");
  Recorder plain("NumberPortability");
  Recorder dotted("pipeline.np");
  Recorder missing("Missing");
  ASSERT_NE(plain.registry(), nullptr);
  ASSERT_EQ(plain.registry()->children().size(), 1u);
  EXPECT_EQ(plain.registry()->find("FileName")->value(), "np.txt");
  ASSERT_NE(dotted.registry(), nullptr);
  EXPECT_EQ(dotted.registry()->find("CountryCode")->value(), "49");
  EXPECT_EQ(missing.registry(), nullptr);
  EXPECT_EQ(framework.registry().findPath("pipeline..np"), nullptr);
  EXPECT_EQ(framework.registry().findPath("pipeline.np."), nullptr);
}

TEST(Framework, CurrentIsTheLatestLiveFrameworkAndObjectsMayOutliveIt) {
  ASSERT_EQ(Framework::current(), nullptr);
  auto outer = std::make_unique<Framework>();
  auto survivor = std::make_unique<Recorder>("Survivor");
  {
    Framework inner;
    EXPECT_EQ(Framework::current(), &inner);
    Recorder innerObject("Survivor");
    EXPECT_TRUE(registered(innerObject)) << "each framework has its own directory";
  }
  EXPECT_EQ(Framework::current(), outer.get());
  EXPECT_EQ(outer->findObject("Survivor"), survivor.get());

  // Out of order: the outer framework ends while a newer one is current.
  auto newer = std::make_unique<Framework>();
  outer.reset();
  EXPECT_EQ(Framework::current(), newer.get());
  survivor.reset();  // its framework is gone; ending must not touch it
  newer.reset();
  EXPECT_EQ(Framework::current(), nullptr);
}

}  // namespace
