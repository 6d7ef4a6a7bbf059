#pragma once

namespace ZUNChannel {

// The channel's singletons, made and given up together: the app manager, the
// connection pool, the sharding manager, and the core app registered as the
// application of protocolID 0.
class ChannelCore {
public:
    static void Create();
    // Gives up what Create made, with the controller list and the node UUIDs
    // the channel was told. For tests and benchmarks: the daemon never stops.
    static void Destroy();
};

}  // namespace ZUNChannel
