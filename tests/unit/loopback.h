// The far end of a connection for the tests of the client floor: a listener on loopback whose script runs in
// a thread of its own, and bytes as literals.
#pragma once

#include "SyncSocket.h"

#include <arpa/inet.h>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <thread>
#include <unistd.h>
#include <utility>

/// A loopback address that no other process uses: for a port that the wire fixes, and for one at which nobody
/// may listen once it is given back.
inline std::string OwnAddress()
{
    const pid_t pid = ::getpid();
    return "127." + std::to_string(64 + (pid >> 16)) + "." + std::to_string(pid >> 8 & 0xFF) + "." +
           std::to_string(pid & 0xFF);
}

/// The host text of a server behind the relay centre there.
inline std::string ThroughOwnRelay(const std::string& strServer)
{
    return "p2p(" + OwnAddress() + "):" + strServer;
}

/// Listens on a free port of an address; Run plays a script with it until the scope ends.
class CLoopback
{
public:
    explicit CLoopback(std::string strIp = "127.0.0.1", UINT nPort = 0) : m_strIp(std::move(strIp))
    {
        EXPECT_TRUE(m_listener.Create(nPort, SOCK_STREAM, m_strIp.c_str(), 1));
        EXPECT_TRUE(m_listener.Listen(8));
        sockaddr_in addr{};
        socklen_t nLen = sizeof addr;
        ::getsockname(m_listener.GetHandle(), reinterpret_cast<sockaddr*>(&addr), &nLen);
        m_nPort = ntohs(addr.sin_port);
        m_listener.SetTimeOut(10000); // a script that waits for nobody ends all the same
    }
    ~CLoopback() { Join(); }
    CLoopback(const CLoopback&) = delete;
    CLoopback& operator=(const CLoopback&) = delete;

    void Run(std::function<void(CLoopback&)> fnScript)
    {
        m_thread = std::thread([this, fnScript = std::move(fnScript)] { fnScript(*this); });
    }
    void Join()
    {
        if (m_thread.joinable())
            m_thread.join();
    }
    void Accept(CSyncSocket& sock)
    {
        EXPECT_TRUE(m_listener.Accept(sock, nullptr, nullptr)) << "nobody connected";
        sock.SetTimeOut(10000);
    }

    /// From now on nobody is listened to.
    void StopListening() { m_listener.Close(); }

    UINT Port() const { return m_nPort; }
    std::string Host() const { return m_strIp + ":" + std::to_string(m_nPort); }
    SOCKET Handle() const { return m_listener.GetHandle(); }

private:
    CSyncSocket m_listener;
    std::string m_strIp;
    UINT m_nPort = 0;
    std::thread m_thread;
};

inline void Send(CSyncSocket& sock, std::string_view bytes)
{
    EXPECT_TRUE(sock.SendAll(bytes.data(), static_cast<int>(bytes.size())));
}

/// Exactly these bytes are the next to come.
inline void Want(CSyncSocket& sock, std::string_view bytes)
{
    std::string got(bytes.size(), '\0');
    EXPECT_TRUE(sock.RecvAll(got.data(), static_cast<int>(got.size()))) << "the peer sent less";
    EXPECT_EQ(got, bytes);
}

/// The peer ends the stream without another byte.
inline void WantEnd(CSyncSocket& sock)
{
    char ch = 0;
    EXPECT_EQ(sock._Recv(&ch, 1), 0) << "a byte came: " << ch;
}

/// Both ends of one connection.
struct SPair
{
    SPair()
    {
        CLoopback listener;
        EXPECT_TRUE(client.Create());
        EXPECT_TRUE(client.CSyncSocket::_Connect("127.0.0.1", listener.Port()));
        listener.Accept(server);
    }
    CReqTimeSock client;
    CSyncSocket server;
};
