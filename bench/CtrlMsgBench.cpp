// Framing throughput of the controller channel: reassembling a stream of
// 4096-byte frames into 1 MiB messages, and cutting a 1 MiB message into such
// frames, each beside a plain memcpy of the same bytes. Bytes counted are the
// message's body in every case.

#include <cstring>
#include <vector>

#include <benchmark/benchmark.h>

#include "CtrlMsg.h"
#include "CtrlMsgFragmenter.h"
#include "CtrlMsgReassembler.h"

namespace {

using ZUNChannel::CtrlMsg;
using ZUNChannel::CtrlMsgBuffer;
using ZUNChannel::CtrlMsgFragmenter;
using ZUNChannel::CtrlMsgReassembler;

constexpr size_t kBodyBytes = 1 << 20;
constexpr uint16_t kMaxPktLen = 4096;

std::vector<uint8_t> Payload()
{
    std::vector<uint8_t> payload(kBodyBytes - 1);
    for (size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<uint8_t>(i * 31);
    }
    return payload;
}

CtrlMsgFragmenter::Frames Frames(const std::vector<uint8_t>& payload)
{
    return CtrlMsgFragmenter::FragmentBody(CtrlMsg::kTypeData, 256, 0x5A, payload.data(), payload.size(),
                                           kMaxPktLen);
}

void BM_Memcpy(benchmark::State& state)
{
    const std::vector<uint8_t> source = Payload();
    std::vector<uint8_t> target(source.size());
    for (auto _ : state) {
        memcpy(target.data(), source.data(), source.size());
        benchmark::DoNotOptimize(target.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBodyBytes));
}
BENCHMARK(BM_Memcpy)->Unit(benchmark::kMicrosecond);

// The stream as the socket delivers it; Feed copies each frame into its own
// buffer (the read), then the last one assembles the message.
void BM_Reassemble(benchmark::State& state)
{
    std::vector<uint8_t> stream;
    for (const CtrlMsgBuffer& frame : Frames(Payload())) {
        stream.insert(stream.end(), frame.get(), frame.get() + CtrlMsg::Length(frame.get()));
    }
    CtrlMsgReassembler reassembler;
    std::vector<CtrlMsgReassembler::Message> messages;
    for (auto _ : state) {
        reassembler.Feed(stream.data(), stream.size(), kMaxPktLen, &messages);
        if (messages.size() != 1 || messages[0].size != CtrlMsg::kHeaderSize + kBodyBytes) {
            state.SkipWithError("reassembly lost the message");
            break;
        }
        messages.clear();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBodyBytes));
    state.counters["frames"] = static_cast<double>(stream.size() / kMaxPktLen + 1);
}
BENCHMARK(BM_Reassemble)->Unit(benchmark::kMicrosecond);

void BM_Fragment(benchmark::State& state)
{
    const std::vector<uint8_t> payload = Payload();
    for (auto _ : state) {
        CtrlMsgFragmenter::Frames frames = Frames(payload);
        benchmark::DoNotOptimize(frames.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kBodyBytes));
}
BENCHMARK(BM_Fragment)->Unit(benchmark::kMicrosecond);

}  // namespace
