// The programs together as their users have them on Windows: trackers in processes of their own,
// read by clients in others, and what only that system has.
#include <gtest/gtest.h>

#include <aclapi.h>
#include <windows.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/joystick.h"
#include "publish/shared_track_reader.h"
#include "tests/support/child_process.h"
#include "tests/support/free_slot.h"
#include "tests/support/peer_world.h"

namespace kinetrel::test {
namespace {

using Strings = std::vector<std::string>;

constexpr const char* kRunning = "Running ...";

std::unique_ptr<ChildProcess> StartTracker(int slot) {
  return std::make_unique<ChildProcess>("kinetrel",
                                        Strings{"-d8", "-z-", "-w" + std::to_string(slot)});
}

std::unique_ptr<ChildProcess> StartWatch(int slot, Strings more = {}) {
  Strings arguments = {"--plain", "--block", "--slot", std::to_string(slot)};
  arguments.insert(arguments.end(), more.begin(), more.end());
  return std::make_unique<ChildProcess>("kinetrel-watch", arguments);
}

void End(ChildProcess& tracker) {
  tracker.Send("\x1b");
  EXPECT_EQ(tracker.Wait(), 0);
  EXPECT_NE(tracker.error().find("MTS closed."), std::string::npos);
}

TEST(WholeRun, AllSixteenSlotsAtOnce) {
  std::vector<std::unique_ptr<ChildProcess>> trackers;
  for (int slot = 1; slot <= kSharedDevices; ++slot) trackers.push_back(StartTracker(slot));
  for (int slot = 1; slot <= kSharedDevices; ++slot) {
    const auto watch = StartWatch(slot, {"--frames", "2", "--timeout", "30"});
    EXPECT_EQ(watch->Wait(), 0) << slot << ": " << watch->error();
    EXPECT_NE(watch->output().find("sensor 1 position"), std::string::npos) << watch->output();
  }
  for (const auto& tracker : trackers) End(*tracker);
  EXPECT_FALSE(InSystem("KinetrelShMem00")) << "the last user has gone";
}

TEST(WholeRun, IsOfHighPriority) {
  const FreeSlot slot;
  const auto tracker = StartTracker(slot.slot());
  ASSERT_TRUE(tracker->ExpectError(kRunning));
  const auto id = static_cast<DWORD>(tracker->pid());
  const HANDLE process = ::OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, id);
  EXPECT_TRUE(WaitUntil([&] { return ::GetPriorityClass(process) == 0x80U; }));
  ::CloseHandle(process);
  End(*tracker);
}

// ---- The objects as the system has them ---------------------------------------------------------

bool IsOpenToAll(HANDLE object) {
  ACL* list = nullptr;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const DWORD code = ::GetSecurityInfo(object, SE_KERNEL_OBJECT, DACL_SECURITY_INFORMATION, nullptr,
                                       nullptr, &list, nullptr, &descriptor);
  SECURITY_DESCRIPTOR_CONTROL control = 0;
  DWORD revision = 0;
  const bool present =
      code == ERROR_SUCCESS && ::GetSecurityDescriptorControl(descriptor, &control, &revision) != 0;
  ::LocalFree(descriptor);
  return present && list == nullptr;
}

TEST(WholeRun, ItsObjectsHaveTheirExactNamesAndANullAccessList) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  const FreeSlot slot;
  const auto tracker = StartTracker(slot.slot());
  ASSERT_TRUE(tracker->ExpectError(kRunning));
  const int device = slot.device();
  for (int bin = 0; bin < kSharedBins; ++bin) {
    const std::string place = {kDigits[device], kDigits[bin]};
    const std::string event =
        "OrvixDataPublishedEvent-Dev" + std::to_string(device) + "-Bin" + std::to_string(bin);
    const HANDLE objects[] = {
        ::OpenFileMappingA(FILE_MAP_READ | READ_CONTROL, FALSE, ("KinetrelShMem" + place).c_str()),
        ::OpenMutexA(SYNCHRONIZE | READ_CONTROL, FALSE, ("KinetrelMutex" + place).c_str()),
        ::OpenEventA(SYNCHRONIZE | READ_CONTROL, FALSE, (event + "Event").c_str())};
    for (const HANDLE object : objects) {
      ASSERT_NE(object, nullptr) << place;
      EXPECT_TRUE(IsOpenToAll(object)) << place;
      ::CloseHandle(object);
    }
  }
  End(*tracker);
}

// Objects of another program have the names: the tracker says so and does not crash.
struct Stranger {
  const char* name;
  HANDLE (*make)(const char* name);
};
class Strangers : public testing::TestWithParam<Stranger> {};

TEST_P(Strangers, AreRefused) {
  const FreeSlot slot;
  std::vector<HANDLE> taken;
  for (int bin = 0; bin < kSharedBins; ++bin) {
    const HANDLE made = GetParam().make(BlockName(slot.device(), bin).c_str());
    ASSERT_NE(made, nullptr);
    taken.push_back(made);
  }
  const auto watch = StartWatch(slot.slot());
  EXPECT_EQ(watch->Wait(), 1) << watch->error();
  const auto tracker = StartTracker(slot.slot());
  EXPECT_EQ(tracker->Wait(), 0);
  EXPECT_NE(tracker->error().find("MTS failed to open."), std::string::npos) << tracker->error();
  for (const HANDLE object : taken) ::CloseHandle(object);
}

INSTANTIATE_TEST_SUITE_P(
    WholeRun, Strangers,
    testing::Values(Stranger{"OfAnotherKind",
                             [](const char* name) {
                               return ::CreateEventA(nullptr, TRUE, FALSE, name);
                             }},
                    Stranger{"ReservedMemory",  // to touch it would end the process
                             [](const char* name) {
                               return ::CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr,
                                                           PAGE_READWRITE | SEC_RESERVE, 0, 65536,
                                                           name);
                             }}),
    [](const auto& row) { return std::string(row.param.name); });

// ---- Joystick -----------------------------------------------------------------------------------

// Whether one is plugged in is the machine's matter: each answer has its own ending.
TEST(WholeRun, TheJoystickIsAskedOfTheSystem) {
  const Result<JoystickInput> first = JoystickInput::Open(0);
  const FreeSlot slot;
  const auto tracker = std::make_unique<ChildProcess>("kinetrel", Simulated(slot, {"-j1"}));
  ASSERT_TRUE(tracker->ExpectError(kRunning));
  const bool refused = tracker->error().find("failed to boot") != std::string::npos;
  EXPECT_EQ(refused, !first.Ok()) << tracker->error();
  EXPECT_EQ(JoystickInput::Open(CountJoysticks()).status().error, Error::NotFound);
  EXPECT_EQ(JoystickInput::Open(-1).status().error, Error::NotFound);
  End(*tracker);
}

}  // namespace
}  // namespace kinetrel::test
