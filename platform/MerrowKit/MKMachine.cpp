#include "platform/MerrowKit/MKMachine.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netpacket/packet.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <limits>
#include <sstream>
#include <string_view>

#include "platform/Base/ASCII.h"
#include "platform/Base/SharedInstance.h"
#include "platform/Preferences/Preferences.h"
#include "platform/VendBase/DefaultsKeys.h"

namespace tallow {

namespace {

// Files of the kernel state no size.
std::string contentsOf(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string trimmed(const std::string& text) {
  const auto isBlank = [](unsigned char c) { return std::isspace(c) != 0 || c == '\0'; };
  const auto first = std::find_if_not(text.begin(), text.end(), isBlank);
  const auto last = std::find_if_not(text.rbegin(), text.rend(), isBlank).base();
  return first < last ? std::string(first, last) : std::string();
}

// What stands in the tables of machines whose maker has given them no serial number.
bool isPlaceholder(const std::string& serial) {
  static constexpr std::array kPlaceholders = {"",
                                               "none",
                                               "not specified",
                                               "not applicable",
                                               "to be filled by o.e.m.",
                                               "n/a",
                                               "default string",
                                               "default",
                                               "system serial number",
                                               "unknown",
                                               "o.e.m.",
                                               "oem",
                                               "not available",
                                               "invalid",
                                               "empty"};
  const std::string text = ascii::lowercased(serial);
  return std::find(kPlaceholders.begin(), kPlaceholders.end(), text) != kPlaceholders.end() ||
         text.find_first_not_of("0") == std::string::npos;
}

// Ethernet and wireless interfaces with an address of their maker's; bit 1 of the first byte marks
// one that software has made up (IEEE 802, "locally administered").
bool hasBurntInAddress(const sockaddr_ll& link) {
  return link.sll_hatype == ARPHRD_ETHER && link.sll_halen == 6 && (link.sll_addr[0] & 0x03) == 0 &&
         std::any_of(std::begin(link.sll_addr), std::begin(link.sll_addr) + 6,
                     [](unsigned char byte) { return byte != 0; });
}

bool saysRecovery(const std::string& name) {
  return ascii::lowercased(name).find("recovery") != std::string::npos;
}

class SystemMachine final : public MKMachine {
 public:
  explicit SystemMachine(std::filesystem::path root) : _root(std::move(root)) {}

  std::optional<std::string> serialNumber() override {
    for (const char* source : {"sys/devices/virtual/dmi/id/product_serial",
                               "sys/firmware/devicetree/base/serial-number"}) {
      std::string serial = trimmed(contentsOf(_root / source));
      if (!isPlaceholder(serial)) return serial;
    }
    return std::nullopt;
  }

  std::optional<std::string> romAddress() override {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return std::nullopt;
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(list, &freeifaddrs);
    const sockaddr_ll* first = nullptr;
    for (const ifaddrs* each = list; each != nullptr; each = each->ifa_next) {
      if (each->ifa_addr == nullptr || each->ifa_addr->sa_family != AF_PACKET) continue;
      const auto* const link = reinterpret_cast<const sockaddr_ll*>(each->ifa_addr);
      if (!hasBurntInAddress(*link)) continue;
      if (first == nullptr || link->sll_ifindex < first->sll_ifindex) first = link;
    }
    if (first == nullptr) return std::nullopt;
    std::string address;
    for (int i = 0; i < 6; ++i) {
      char digits[3];
      std::snprintf(digits, sizeof digits, "%02X", first->sll_addr[i]);
      address += digits;
    }
    return address;
  }

  bool isOnRecoveryPartition() override {
    return kernelWasToldOfRecovery() || rootPartitionIsNamedRecovery();
  }

 private:
  // By how the boot loader has named the root file system. (A bare "recovery", as boot menus have
  // it, is the rescue mode of the ordinary system.)
  bool kernelWasToldOfRecovery() const {
    std::istringstream words(contentsOf(_root / "proc/cmdline"));
    for (std::string word; words >> word;) {
      const bool namesRoot = word.starts_with("root=PARTLABEL=") || word.starts_with("root=LABEL=");
      if (namesRoot && saysRecovery(word)) return true;
    }
    return false;
  }

  // As the device manager has read it from the partition table.
  bool rootPartitionIsNamedRecovery() const {
    struct stat status {};
    if (stat(_root.c_str(), &status) != 0) return false;
    const std::string record =
        "b" + std::to_string(major(status.st_dev)) + ":" + std::to_string(minor(status.st_dev));
    std::istringstream lines(contentsOf(_root / "run/udev/data" / record));
    for (std::string line; std::getline(lines, line);) {
      const bool isName =
          line.starts_with("E:ID_PART_ENTRY_NAME=") || line.starts_with("E:ID_FS_LABEL=");
      if (isName && saysRecovery(line)) return true;
    }
    return false;
  }

  const std::filesystem::path _root;
};

// Adds what has been stated in preferences where the machine itself does not tell.
class StatedMachine final : public MKMachine {
 public:
  explicit StatedMachine(std::unique_ptr<MKMachine> machine) : _machine(std::move(machine)) {}

  std::optional<std::string> serialNumber() override {
    const auto told = _machine->serialNumber();
    return told ? told : stated(kDefaultsMachineSerialNumberKey);
  }
  std::optional<std::string> romAddress() override {
    const auto told = _machine->romAddress();
    return told ? told : stated(kDefaultsMachineROMAddressKey);
  }
  bool isOnRecoveryPartition() override { return _machine->isOnRecoveryPartition(); }

 private:
  static std::optional<std::string> stated(const char* key) {
    const Value value = Preferences::shared().copyAppValue(key, kDaemonDefaultsID);
    const std::string* const text = value.string();
    return text != nullptr && !text->empty() ? std::optional(*text) : std::nullopt;
  }

  const std::unique_ptr<MKMachine> _machine;
};

}  // namespace

std::unique_ptr<MKMachine> MKMachine::make(const std::filesystem::path& root) {
  return std::make_unique<SystemMachine>(root);
}

MKMachine& MKMachine::shared() {
  return SharedInstance<MKMachine>::get([] { return std::make_unique<StatedMachine>(make("/")); });
}

}  // namespace tallow
