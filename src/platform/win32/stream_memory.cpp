#include "platform/stream_memory.h"

#include <windows.h>

#include <sddl.h>

#include <array>
#include <atomic>
#include <utility>
#include <vector>

#include "platform/mutex.h"
#include "platform/win32/os.h"

namespace kinetrel {
namespace {

constexpr const char* kMaking = "making the record stream";

// This account's name as an access list has it; empty when the system does not tell.
std::string OwnAccount() {
  HANDLE opened = nullptr;
  if (::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &opened) == 0) return {};
  const Handle token(opened);
  DWORD size = 0;
  ::GetTokenInformation(token.get(), TokenUser, nullptr, 0, &size);
  std::vector<BYTE> room(size);
  if (size < sizeof(TOKEN_USER) ||
      ::GetTokenInformation(token.get(), TokenUser, room.data(), size, &size) == 0) {
    return {};
  }
  char* text = nullptr;
  if (::ConvertSidToStringSidA(reinterpret_cast<TOKEN_USER*>(room.data())->User.Sid, &text) == 0) {
    return {};
  }
  std::string account = text;
  ::LocalFree(text);
  return account;
}

// Grants this account everything and everyone else `rights`, a number as an access list has it.
class OthersMayOnly {
 public:
  explicit OthersMayOnly(const char* rights) {
    const std::string account = OwnAccount();
    std::string list = std::string("D:(A;;") + rights + ";;;WD)";
    if (!account.empty()) list += "(A;;GA;;;" + account + ")";
    ::ConvertStringSecurityDescriptorToSecurityDescriptorA(
        list.c_str(), SDDL_REVISION_1, &attributes_.lpSecurityDescriptor, nullptr);
  }
  ~OthersMayOnly() { ::LocalFree(attributes_.lpSecurityDescriptor); }
  OthersMayOnly(const OthersMayOnly&) = delete;
  OthersMayOnly& operator=(const OthersMayOnly&) = delete;

  SECURITY_ATTRIBUTES* attributes() { return &attributes_; }

 private:
  SECURITY_ATTRIBUTES attributes_{sizeof(SECURITY_ATTRIBUTES), nullptr, FALSE};
};

constexpr const char* kQueryAndMapForReading = "0x0005";
constexpr const char* kWaitOnly = "0x00100000";

}  // namespace

struct StreamMemory::Os {
  Handle writing;  // exists while a writer lives, and tells a second one
  Handle section;
  void* memory = nullptr;
  std::array<Handle, 2> wake;
  Mutex announcing;

  Os() = default;
  Os(const Os&) = delete;
  Os& operator=(const Os&) = delete;
  ~Os() {
    if (memory != nullptr) ::UnmapViewOfFile(memory);
  }

  Status Claim(const std::string& name) {
    OthersMayOnly security(kWaitOnly);
    Handle mark(::CreateMutexA(security.attributes(), FALSE, (name + "Writer").c_str()));
    const DWORD code = ::GetLastError();
    if (!mark) return StatusFromSystem(code, kMaking);
    if (code == ERROR_ALREADY_EXISTS) {
      return {Error::Busy, 0, "another program writes the record stream"};
    }
    writing = std::move(mark);
    return {};
  }

  Status MakeWakes(const std::string& name) {
    OthersMayOnly security(kWaitOnly);
    for (std::size_t i = 0; i < wake.size(); ++i) {
      const std::string event = name + "Wake" + std::to_string(i);
      wake[i] = Handle(::CreateEventA(security.attributes(), TRUE, FALSE, event.c_str()));
      if (!wake[i]) return StatusOfLastError(kMaking);
    }
    return {};
  }

  Status Make(const std::string& name, std::size_t size) {
    OthersMayOnly security(kQueryAndMapForReading);
    section =
        Handle(::CreateFileMappingA(INVALID_HANDLE_VALUE, security.attributes(), PAGE_READWRITE, 0,
                                    static_cast<DWORD>(size), name.c_str()));
    if (!section) return StatusOfLastError(kMaking);
    memory = ::MapViewOfFile(section.get(), FILE_MAP_READ | FILE_MAP_WRITE, 0, 0, size);
    if (memory == nullptr) return StatusOfLastError(kMaking);
    MEMORY_BASIC_INFORMATION about{};
    const bool whole = ::VirtualQuery(memory, &about, sizeof about) == sizeof about &&
                       about.State == MEM_COMMIT && about.RegionSize >= size;
    return whole ? Status{} : Status{Error::Invalid, 0, "an object of another size has the name"};
  }
};

std::uint32_t OwnProcessId() { return ::GetCurrentProcessId(); }

StreamMemory::StreamMemory(std::unique_ptr<Os> os) : os_(std::move(os)) {}
StreamMemory::StreamMemory(StreamMemory&&) noexcept = default;
StreamMemory::~StreamMemory() = default;

Result<StreamMemory> StreamMemory::Create(const std::string& name, std::size_t size) {
  auto os = std::make_unique<Os>();
  Status made = os->Claim(name);
  if (made.Ok()) made = os->MakeWakes(name);
  if (made.Ok()) made = os->Make(name, size);
  if (!made.Ok()) return made;
  return StreamMemory(std::move(os));
}

void* StreamMemory::data() const { return os_->memory; }

void StreamMemory::Offer() {}  // its access list says so from the start

// The event of the count's parity is what readers wait for who have seen that count.
void StreamMemory::Announce(std::uint32_t* count) {
  const Lock held(os_->announcing);
  const std::atomic_ref word(*count);
  const std::uint32_t seen = word.load(std::memory_order_relaxed);
  ::ResetEvent(os_->wake[(seen + 1) & 1].get());
  word.store(seen + 1, std::memory_order_release);
  ::SetEvent(os_->wake[seen & 1].get());
}

bool StreamMemory::Replaced() const { return false; }

}  // namespace kinetrel
