#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "CommandTable.h"

namespace DpSim {

class DataPathSim;

// The line commands of fenrel-dpsim.
class CommandShell : public SimShell::CommandTable {
public:
    explicit CommandShell(DataPathSim& sim);

    // Dotted IPv4 to host order.
    static std::optional<uint32_t> ParseIpv4(const std::string& text);
    // "aa:bb:cc:dd:ee:ff", the first byte highest.
    static std::optional<uint64_t> ParseMac(const std::string& text);

private:
    std::string Status(const Args& args);
    std::string View(const Args& args);
    std::string FullSync(const Args& args);
    std::string AutoFullSync(const Args& args);
    std::string Vif(const Args& args);
    std::string VifDel(const Args& args);
    std::string L2(const Args& args);
    std::string Close(const Args& args);
    // Passes on the result of a change of local state, noting one that is
    // kept for the next first message.
    std::string LocalChange(const std::string& error);

    DataPathSim& _sim;
};

}  // namespace DpSim
