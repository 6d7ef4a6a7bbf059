#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace FenRELTest {

using Bytes = std::vector<uint8_t>;

// The far end of a data-plane link at its simplest: a listening unix stream
// socket and the one connection it accepted, with deadlines on every wait.
class UnixPeer {
public:
    // Binds and listens on `path`; throws std::runtime_error on failure.
    explicit UnixPeer(const std::string& path);
    ~UnixPeer();
    UnixPeer(const UnixPeer&) = delete;
    UnixPeer& operator=(const UnixPeer&) = delete;

    // Takes the next connection (closing the one before); false on time-out.
    bool Accept(std::chrono::milliseconds timeout);
    bool Write(const Bytes& bytes);
    // Exactly `size` bytes, or nullopt on time-out, close or error.
    std::optional<Bytes> Read(size_t size, std::chrono::milliseconds timeout);
    // A whole message whose length field of `lengthBytes` bytes stands at
    // offset 2 of a header of `headerSize` bytes.
    std::optional<Bytes> ReadFrame(size_t headerSize, size_t lengthBytes, std::chrono::milliseconds timeout);
    // Nothing arrives but the end of the stream within `timeout`.
    bool WaitForEof(std::chrono::milliseconds timeout);
    // Closes the accepted connection.
    void CloseConnection();

private:
    std::string _path;
    int _listenFd = -1;
    int _fd = -1;
};

// A message of the data-path agent's link: six-byte header, then `body`.
Bytes ZunaFrame(uint8_t type, const std::string& body, uint8_t flags = 0);
// A message of the kernel link: 16-bit type, 16-bit length, then `body`.
Bytes KrnFrame(uint16_t type, const std::string& body);
// A malloc'ed copy, as a link's Send takes it.
uint8_t* MallocCopy(const Bytes& bytes);

}  // namespace FenRELTest
