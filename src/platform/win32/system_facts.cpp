#include "platform/system_facts.h"

#include <windows.h>

#include <thread>

namespace kinetrel {
namespace {

constexpr const char* kVersionKey = "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";
constexpr const char* kProcessorKey = "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0";

std::string TextOf(const char* key, const char* name) {
  char text[256] = "";
  DWORD size = sizeof text;
  const LONG result =
      ::RegGetValueA(HKEY_LOCAL_MACHINE, key, name, RRF_RT_REG_SZ, nullptr, text, &size);
  return result == ERROR_SUCCESS ? text : "";
}

}  // namespace

SystemFacts ReadSystemFacts() {
  SystemFacts facts;
  facts.system = TextOf(kVersionKey, "ProductName");
  facts.kernel = "Windows NT " + TextOf(kVersionKey, "CurrentVersion") + " build " +
                 TextOf(kVersionKey, "CurrentBuildNumber");
  facts.processor = TextOf(kProcessorKey, "ProcessorNameString");
  facts.processors = std::thread::hardware_concurrency();
  return facts;
}

}  // namespace kinetrel
