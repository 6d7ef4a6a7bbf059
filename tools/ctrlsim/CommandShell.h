#pragma once

#include <string>

#include "CommandTable.h"
#include "Hello.h"

namespace CtrlSim {

class ControllerSim;

// The line commands of fenrel-ctrlsim.
class CommandShell : public SimShell::CommandTable {
public:
    explicit CommandShell(ControllerSim& sim);

    // Sets one field of `hello` from text, as the options and `hello-set`
    // give it: version, flags, max-pkt-len, keepalive-interval,
    // msg-frequency, slice-length, node-uuid (or "none" for these five),
    // feature ID:VERSION[:HEX] (adds one), features none, extra-tlvs HEX.
    // Returns an empty string, or what is wrong.
    static std::string SetHelloField(Hello& hello, const std::string& field, const std::string& value);

private:
    std::string KeepAlive(const Args& args);
    std::string KeepAlivePeriod(const Args& args);
    std::string HelloMode(const Args& args);
    std::string HelloSet(const Args& args);
    std::string SendHello(const Args& args);
    std::string Send(const Args& args);
    std::string Raw(const Args& args);
    std::string Close(const Args& args);
    std::string Accept(const Args& args);
    // Moves the host's session: the controller it names is the master now.
    std::string Master(const Args& args);
    std::string Status(const Args& args);

    ControllerSim& _sim;
};

}  // namespace CtrlSim
