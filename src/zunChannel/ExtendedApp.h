#pragma once

#include "App.h"

namespace ZUNChannel {

// An application that takes part in the hello: it announces a feature TLV
//
//   0      2        4         5
//   +------+--------+---------+----------------------+
//   | id   | length | version | feature data         |
//   +------+--------+---------+----------------------+
//
// and validates and applies the controller's.
class ExtendedApp : public App {
public:
    using App::App;

    virtual uint8_t GetVersion() const { return 1; }
    // Writes the feature TLV at `buffer` and returns its length.
    virtual uint16_t WriteHelloFeature(uint8_t* buffer);
    // Writes the feature data at `buffer` and returns its length.
    virtual uint16_t WriteFeatureData(uint8_t* /*buffer*/) { return 0; }
    // Must match what WriteHelloFeature writes.
    virtual uint16_t GetHelloFeatureLen() { return 5; }
    // With `strict`, a version other than ours is refused.
    virtual bool ValidateHelloFeature(const uint8_t* tlv, bool strict);
    virtual bool CheckFeatureData(const uint8_t* /*tlv*/) { return true; }
    virtual void ApplyHelloFeature(const uint8_t* /*tlv*/) {}
};

}  // namespace ZUNChannel
