// UnixSocket: one Unix-domain stream socket in the Linux abstract namespace.
//
// The report channel to the security policy daemon uses the client side
// (connect by name, send one framed string, close); the server side, the
// readiness waits and the framed receive belong to the same channel so that
// both ends share one framing:
//
//   offset 0, 4 bytes    text length n (unsigned 32-bit, host byte order)
//   offset 4, n + 1      the text's bytes followed by one zero byte
//
// Addresses always take the full length of struct sockaddr_un: a zero byte,
// the name in the following 107 bytes (cut there), zero padding. Integer
// results are 0 for success and -1 for failure; boolean results are true for
// success. An object owns its descriptor and closes it when destroyed.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <string>

#include "handles.h"

class UnixSocket {
public:
    static const int s_badDescriptor = -1;

    UnixSocket();
    ~UnixSocket();
    UnixSocket(const UnixSocket&) = delete;
    UnixSocket& operator=(const UnixSocket&) = delete;

    // Writes the abstract address of `name` into m_address.
    void SetupSocket(char const* name);
    int CreateSocketDescriptor();

    // Client side. A failed connect leaves the descriptor open.
    int ConnectToHost(char const* name);
    // The same with connecting and every later send bounded by `timeoutMs`
    // (0 bounds nothing).
    int ConnectToHost(char const* name, unsigned int timeoutMs);
    // The user ID of the connected peer, as it was when the peer listened or
    // connected; -1 when it cannot be told.
    int PeerUserId(uid_t& uid) const;

    // Server side.
    int SetupHost(char const* name, unsigned int backlog);
    int Bind();
    int Listen(unsigned int backlog);
    // Fills `client`, which is expected to hold no descriptor (one it holds is
    // overwritten, not closed).
    int AcceptConnection(UnixSocket& client);
    int AcceptConnection(UnixSocket& client, unsigned int timeoutMs, bool silent);

    // Replaces the file status flags by O_NONBLOCK alone.
    int SetNonBlocking();
    // Whether a descriptor is held (not whether a peer is there).
    [[nodiscard]] bool IsConnected() const;
    [[nodiscard]] bool IsReadyForReading(unsigned int timeoutMs) const;
    [[nodiscard]] bool IsReadyForWriting(unsigned int timeoutMs) const;
    int Disconnect();

    // Exactly `length` bytes; any failure closes the connection.
    bool SendData(unsigned char const* buffer, unsigned int length);
    bool ReceiveData(unsigned char* buffer, unsigned int length);

    // One frame; any failure closes the connection.
    bool SendString(std::string const& text);
    bool ReceiveString(std::string& text);
    // Leaves `text` untouched when nothing arrives within the timeout.
    bool ReceiveString(std::string& text, unsigned int timeoutMs);

private:
    UniqueFd m_descriptor;
    struct sockaddr_un m_address;
};
