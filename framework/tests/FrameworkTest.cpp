// The framework's directory of named objects, their requests, messages, statuses and registry
// subtrees, the chain of live frameworks, and the probes that plug-ins hand to it.
#include "BAS/EventHandler.h"
#include "BAS/Framework.h"
#include "BAS/InstrumentationProbeAttribute.h"
#include "BAS/InstrumentationProbeGroup.h"
#include "BAS/MemoryLogSink.h"
#include "BAS/Message.h"
#include "BAS/MutexLocker.h"
#include "BAS/RegisteredObject.h"
#include "OMF/InstrumentationProbeBrokerIf.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

using BAS::Framework;
using BAS::Message;
using BAS::RegisteredObject;
using BAS::String;
using Strings = std::vector<String>;

bool registered(const RegisteredObject& object) {
  BAS::MutexLocker locker(RegisteredObject::isRegisteredLockerCM);
  return object.isRegistered();
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

struct FrameworkTest : ::testing::Test {
  FrameworkTest() { framework.log().addSink(sink); }
  Framework framework;
  std::shared_ptr<BAS::MemoryLogSink> sink = std::make_shared<BAS::MemoryLogSink>();
};

TEST_F(FrameworkTest, RegistrationRefusesTakenEmptyAndRootNamesAndFreesNamesAtTheEnd) {
  {
    Recorder first("NumberPortability");
    for (const char* refused : {"NumberPortability", "", "Framework"}) {
      Recorder object(refused);
      EXPECT_FALSE(registered(object) || object.isUsable()) << refused;
    }
    EXPECT_EQ(framework.findObject("NumberPortability"), &first) << "a refused duplicate must not unregister the first";
    EXPECT_TRUE(registered(first) && first.isUsable());
  }
  EXPECT_EQ(framework.findObject("NumberPortability"), nullptr);
  Recorder again("NumberPortability");
  EXPECT_TRUE(registered(again));
  {
    BAS::MutexLocker locker(RegisteredObject::isValidLockerCM);
    again.setValid(false);
  }
  EXPECT_FALSE(again.isUsable());
}

TEST_F(FrameworkTest, RequestsReachTheRootOrTheirObjectAndMessagesAreLoggedAsEvents) {
  const auto ask = [](const char* receiver, const char* id, Strings expected) {
    Message request("NP", receiver, id, "argument");
    EXPECT_EQ(RegisteredObject::sendRequest(request), !expected.empty()) << receiver << " " << id;
    EXPECT_EQ(request.answer(), expected) << receiver << " " << id;
  };
  ask("Framework", "REQ_EVENTHANDLER_NAME", {});
  framework.setEventHandlerName(String("First"));
  framework.setEventHandlerName(String("EventHandler"));  // replaces the first handler
  ask("Framework", "REQ_EVENTHANDLER_NAME", {"EventHandler"});
  ask("Framework", "REQ_SOMETHING_ELSE", {});
  Recorder target("Target");
  RegisteredObject silent("Silent");
  Forwarder forwarder("Forwarder");
  ask("Target", "REQ_ECHO", {"Target", "argument"});
  ask("Nobody", "REQ_ECHO", {});
  ask("Silent", "REQ_ECHO", {});

  Message reload("NumberPortability", "EventHandler", "EVT::RELOAD_SUCCESSFUL", "");
  Message lost("NumberPortability", "First", "EVT::RELOAD_FAILED", "why");
  Message chain("NP", "Forwarder", "EVT::CHAIN", "x");
  EXPECT_TRUE(RegisteredObject::sendMessage(reload));
  EXPECT_FALSE(RegisteredObject::sendMessage(lost));
  EXPECT_TRUE(RegisteredObject::sendMessage(chain));
  EXPECT_EQ(framework.eventHandler()->received(), 1u);
  EXPECT_EQ(target.received, std::vector<std::string>{"EVT::CHAIN"});
  const std::vector<std::string> lines = sink->lines();
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_TRUE(lines[0].ends_with(" EVENT NumberPortability -> EventHandler EVT::RELOAD_SUCCESSFUL [\"\"] delivered"));
  EXPECT_TRUE(lines[1].ends_with(" EVENT NumberPortability -> First EVT::RELOAD_FAILED [\"why\"] not-delivered"));
  EXPECT_TRUE(lines[2].ends_with(" EVENT Forwarder -> Target EVT::CHAIN [\"x\"] delivered"));

  framework.setEventHandlerName(std::nullopt);
  ask("Framework", "REQ_EVENTHANDLER_NAME", {});
  EXPECT_EQ(framework.findObject("EventHandler"), nullptr) << "the removed handler's name is released";
}

TEST_F(FrameworkTest, StatusesCarryTheObjectsNameAndObjectsFindTheirRegistrySubtree) {
  Recorder object("NumberPortability");
  BAS::Status status;
  status.set("someone else", "ERR_INVALID_REG_VALUE", BAS::Status::CRITICAL, Strings{"MAYBE", "Reuse"});
  object.setStatus(status, true);
  object.setStatus(BAS::Status("INF_FILE_OPENED", BAS::Status::NORMAL, "np.txt"), false);
  ASSERT_EQ(sink->lines().size(), 1u) << "a status set without log is not written";
  EXPECT_NE(sink->lines()[0].find(" CRITICAL(5) NumberPortability ERR_INVALID_REG_VALUE [\"MAYBE\", \"Reuse\"] "), std::string::npos);
  {
    BAS::MutexLocker locker(RegisteredObject::statusLockerCM);
    EXPECT_EQ(object.status().objectName(), "NumberPortability");
    EXPECT_EQ(object.status().messageId(), "INF_FILE_OPENED");
  }
  framework.registry().child("NumberPortability").add("FileName", "old.txt");
  framework.registry().child("NumberPortability").add("FileName", "np.txt");  // a key is set, not repeated
  framework.registry().child("pipeline").child("np").add("CountryCode", "49");
  Recorder dotted("pipeline.np"), missing("Missing");
  ASSERT_EQ(object.registry()->children().size(), 1u);
  EXPECT_EQ(object.registry()->find("FileName")->value(), "np.txt");
  EXPECT_EQ(dotted.registry()->find("CountryCode")->value(), "49");
  EXPECT_EQ(missing.registry(), nullptr);
  EXPECT_EQ(framework.registry().findPath("pipeline..np"), nullptr);
}

TEST(Framework, CurrentIsTheLatestLiveFrameworkAndWithoutOneNothingIsRegisteredOrSent) {
  ASSERT_EQ(Framework::current(), nullptr);
  {
    Recorder lonely("Lonely");
    Message request("Lonely", "Framework", "REQ_EVENTHANDLER_NAME", ""), message("Lonely", "Lonely", "EVT::X", "");
    EXPECT_FALSE(registered(lonely) || lonely.registry() || RegisteredObject::sendRequest(request) ||
                 RegisteredObject::sendMessage(message));
    ::testing::internal::CaptureStderr();
    lonely.setStatus(BAS::Status("ERR_FILE_NOT_FOUND", BAS::Status::MAJOR, "np.txt"), true);
    EXPECT_TRUE(::testing::internal::GetCapturedStderr().ends_with(
        " MAJOR(4) Lonely ERR_FILE_NOT_FOUND [\"np.txt\"] The file np.txt was not found.\n"));
  }
  auto outer = std::make_unique<Framework>();
  auto survivor = std::make_unique<Recorder>("Survivor");
  {
    Framework inner;
    EXPECT_EQ(Framework::current(), &inner);
    EXPECT_TRUE(registered(Recorder("Survivor"))) << "each framework has its own directory";
  }
  EXPECT_EQ(Framework::current(), outer.get());
  EXPECT_EQ(outer->findObject("Survivor"), survivor.get());
  auto newer = std::make_unique<Framework>();
  outer.reset();  // out of order, while a newer one is current
  EXPECT_EQ(Framework::current(), newer.get());
  survivor.reset();  // its framework is gone; ending must not touch it
  newer.reset();
  EXPECT_EQ(Framework::current(), nullptr);
}

// Counts its destruction, so that the test sees who releases what.
struct CountedValue : BAS::InstrumentationProbeValueIf {
  explicit CountedValue(int& released) : releasedM(released) {}
  ~CountedValue() override { ++releasedM; }
  int& releasedM;
};

TEST_F(FrameworkTest, ProbeFilesGiveEachTableItsDescriptionOrAreReportedAndGroupsAreReleased) {
  const std::filesystem::path dir = std::filesystem::temp_directory_path() / ("np-probe-" + std::to_string(::getpid()));
  std::filesystem::create_directories(dir / "folder.probe");
  framework.setProbeDirectory(String(dir.string()));
  std::ofstream(dir / "np.probe") << "version = 3\n[group]\ndescription = \"Control\"\n[reload]\ndescription = \"Reloads\"\n"
                                     "[printData]\nother = 1\n[deltaLoad]\ndescription = 42\n";
  std::ofstream(dir / "broken.probe") << "[group]\ndescription = \"fine\"\n[reload\n";
  RegisteredObject reader("NumberPortability");
  std::map<String, BAS::InstrumentationProbe::ProbeInfo> infos{{"kept", {"kept", "from before"}}};
  ASSERT_TRUE(OMF::InstrumentationProbeBrokerIf::ReadProbeInfoFile(&reader, "np.probe", infos));
  Strings seen;
  for (const auto& [key, info] : infos) seen.insert(seen.end(), {key, info.name, info.description});
  EXPECT_EQ(seen, (Strings{"deltaLoad", "deltaLoad", "", "group", "group", "Control", "kept", "kept", "from before",
                           "printData", "printData", "", "reload", "reload", "Reloads"}));
  for (const auto& [name, reason] : {std::pair{"absent.probe", "No such file"}, {"broken.probe", "line 3"}, {"folder.probe", ""}}) {
    infos.clear(), sink->clear();
    EXPECT_FALSE(OMF::InstrumentationProbeBrokerIf::ReadProbeInfoFile(&reader, name, infos));
    EXPECT_TRUE(infos.empty());
    const auto records = sink->withId("ERR_PROBE_INFO_FILE");
    ASSERT_EQ(records.size(), 1u) << name;
    EXPECT_EQ(records[0].object, "NumberPortability");
    EXPECT_EQ(records[0].args.at(0), (dir / name).string());
    EXPECT_NE(records[0].args.at(1).str().find(reason), std::string::npos) << records[0].args[1];
  }
  std::filesystem::remove_all(dir);

  int released = 0;
  {
    Framework owner;
    auto* group = new BAS::InstrumentationProbeGroup({"group", "control"}, 1);
    auto* value = new CountedValue(released);
    group->attributes().push_back(new BAS::InstrumentationProbeAttribute({"reload", "Reloads"}, value, 1));
    group->attributes().push_back(new BAS::InstrumentationProbeAttribute({"printData", ""}, new CountedValue(released), 1));
    EXPECT_EQ(owner.probeGroups(), std::vector<BAS::InstrumentationProbeGroup*>{group});
    EXPECT_EQ(group->find("reload")->value(), value);
    EXPECT_EQ(group->find("absent"), nullptr);
  }
  EXPECT_EQ(released, 2);
}

}  // namespace
