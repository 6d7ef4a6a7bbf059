#pragma once

#include <cstdint>
#include <string>

namespace FenREL {

// The hello feature of the L2 apps and the parameters a controller gives
// through it. The host announces one nested TLV behind the feature head of
// the app framework (type = application id, length 10, version 1):
//
//   0      2        4
//   +------+--------+----------------------+
//   | 4    | 5      | proactive mode: 2    |
//   +------+--------+----------------------+
//
// The controller answers with a feature of the same form whose data, from
// byte 5 up to the feature's length, are nested TLVs (length counts the
// 4-byte head):
//
//   type 1  frequency control: period, query, update (three 16-bit values)
//   type 2  MAC table ageing (16 bits)
//   type 3  ARP table ageing (16 bits)
//
// The values are kept and logged only: the controller decides frequency
// control and ageing, and fragmenting reads the pool's frame limit itself.
// Plain logic over bytes, called under the global lock by its app.
class L2HelloFeature {
public:
    static constexpr uint16_t kFeatureLen = 10;
    static constexpr uint16_t kTypeFreqCtrl = 1;
    static constexpr uint16_t kTypeMacAgeing = 2;
    static constexpr uint16_t kTypeArpAgeing = 3;
    static constexpr uint16_t kTypeProactiveMode = 4;
    static constexpr uint8_t kProactiveMode = 2;

    // In the order the logs print them.
    struct Params {
        uint16_t maxPktLen = 4085;
        uint16_t freqCtrlPeriod = 1000;
        uint16_t freqCtrlQuery = 100;
        uint16_t freqCtrlUpdate = 20;
        uint16_t bteAgeingTime = 300;
        uint16_t arpAgeingTime = 600;

        bool operator==(const Params& other) const;
        bool operator!=(const Params& other) const { return !(*this == other); }
    };

    // Writes the host's feature data at `buffer` and returns its length (5).
    static uint16_t WriteFeatureData(uint8_t* buffer, const std::string& appName);
    // Checks the controller's feature TLV: false, with the error line, at the
    // first known value that is too short. A nested TLV that runs past the
    // feature is an assertion of the TLV walker.
    static bool CheckFeatureData(const uint8_t* feature, const std::string& appName);

    // Takes what the controller's feature holds over the current values, and
    // maxPktLen from the pool's frame limit (at least 16).
    void ApplyHelloFeature(const uint8_t* feature, uint16_t poolMaxPktLen, const std::string& appName);

    const Params& GetParams() const { return _params; }

private:
    Params _params;
};

}  // namespace FenREL
