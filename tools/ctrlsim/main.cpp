// fenrel-ctrlsim: a controller for the demo and for trying the agent by hand.
// Prints "listening <address>:<port>" first, then one line per event, and
// takes the commands of CommandShell on standard input ("help" lists them).
// Ends on "quit", SIGINT or SIGTERM; the end of standard input does not end it.

#include <getopt.h>

#include <cstdio>
#include <string>

#include "CommandShell.h"
#include "ControllerSim.h"
#include "SimulatorMain.h"

namespace {

void Usage(const char* program)
{
    fprintf(stderr,
            "usage: %s [options]\n"
            "  --address A              listening address (127.0.0.1)\n"
            "  --port P                 listening port (0: any free one)\n"
            "  --key FILE --cert FILE   TLS with this key and certificate (plain TCP without)\n"
            "  --hello-mode M           answer | first | silent (answer)\n"
            "  --version N              version byte of our hello (1)\n"
            "  --flags N                helloFlags of our hello (0x80)\n"
            "  --max-pkt-len N|none     Max Pkt Len TLV (4096)\n"
            "  --keepalive-interval N|none  KeepAlive Interval TLV, seconds (10)\n"
            "  --msg-frequency N|none   Msg Frequency TLV (200)\n"
            "  --slice-length N|none    ShardingSlice length TLV (4194304)\n"
            "  --node-uuid HEX|none     Node UUID TLV, 32 hex digits, dashes allowed\n"
            "  --feature ID:VER[:HEX]   a feature of the feature list (repeatable)\n"
            "  --extra-tlvs HEX         raw bytes after the TLVs\n"
            "  --keepalive-period MS    our keep-alive period (the interval above)\n"
            "  --no-keepalive           send no keep-alives\n",
            program);
}

}  // namespace

int main(int argc, char** argv)
{
    CtrlSim::ControllerSim::Options options;
    CtrlSim::Hello hello = CtrlSim::Hello::ControllerDefault();
    CtrlSim::HelloMode helloMode = CtrlSim::HelloMode::Answer;
    std::optional<std::chrono::milliseconds> keepAlivePeriod;
    bool keepAlive = true;

    enum { Address = 256, Port, Key, Cert, Mode, Period, NoKeepAlive, HelloField };
    static const option longOptions[] = {
        {"address", required_argument, nullptr, Address},
        {"port", required_argument, nullptr, Port},
        {"key", required_argument, nullptr, Key},
        {"cert", required_argument, nullptr, Cert},
        {"hello-mode", required_argument, nullptr, Mode},
        {"keepalive-period", required_argument, nullptr, Period},
        {"no-keepalive", no_argument, nullptr, NoKeepAlive},
        {"version", required_argument, nullptr, HelloField},
        {"flags", required_argument, nullptr, HelloField},
        {"max-pkt-len", required_argument, nullptr, HelloField},
        {"keepalive-interval", required_argument, nullptr, HelloField},
        {"msg-frequency", required_argument, nullptr, HelloField},
        {"slice-length", required_argument, nullptr, HelloField},
        {"node-uuid", required_argument, nullptr, HelloField},
        {"feature", required_argument, nullptr, HelloField},
        {"extra-tlvs", required_argument, nullptr, HelloField},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    int index = 0;
    for (int opt; (opt = getopt_long(argc, argv, "h", longOptions, &index)) != -1;) {
        std::string error;
        switch (opt) {
        case Address:
            options.address = optarg;
            break;
        case Port: {
            const auto port = CtrlSim::CommandShell::ParseNumber(optarg, 0xFFFF);
            error = port ? "" : "bad port";
            options.port = static_cast<uint16_t>(port.value_or(0));
            break;
        }
        case Key:
            options.keyFile = optarg;
            break;
        case Cert:
            options.certFile = optarg;
            break;
        case Mode:
            if (std::string(optarg) == "answer") {
                helloMode = CtrlSim::HelloMode::Answer;
            } else if (std::string(optarg) == "first") {
                helloMode = CtrlSim::HelloMode::SendFirst;
            } else if (std::string(optarg) == "silent") {
                helloMode = CtrlSim::HelloMode::Silent;
            } else {
                error = "bad hello mode";
            }
            break;
        case Period: {
            const auto ms = CtrlSim::CommandShell::ParseNumber(optarg, 24u * 3600 * 1000);
            error = ms ? "" : "bad keep-alive period";
            keepAlivePeriod = std::chrono::milliseconds(ms.value_or(0));
            break;
        }
        case NoKeepAlive:
            keepAlive = false;
            break;
        case HelloField:
            error = CtrlSim::CommandShell::SetHelloField(hello, longOptions[index].name, optarg);
            break;
        default:
            Usage(argv[0]);
            return opt == 'h' ? 0 : 2;
        }
        if (!error.empty()) {
            fprintf(stderr, "%s: --%s: %s\n", argv[0], longOptions[index].name, error.c_str());
            return 2;
        }
    }

    CtrlSim::ControllerSim sim(options);
    sim.Core().SetHello(hello);
    sim.Core().SetHelloMode(helloMode);
    sim.Core().SetKeepAlivePeriod(keepAlivePeriod);
    sim.Core().SetKeepAliveEnabled(keepAlive);
    sim.SetEventLog([](const std::string& line) { SimShell::Print(line + "\n"); });
    CtrlSim::CommandShell shell(sim);
    return SimShell::RunSimulator(
        argv[0],
        [&sim] {
            sim.Start();
            return "listening " + sim.Address() + ":" + std::to_string(sim.Port());
        },
        shell, [&sim] { sim.Stop(); });
}
