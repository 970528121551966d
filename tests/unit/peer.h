// The server's side of a connection for the tests of handshake and requests: its scrambled records, its
// replies, and a client whose request connection leads to the test.
#pragma once

#include "ClientSock.h"
#include "loopback.h"

#include <array>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

/// A request of the handshake: its command byte, and its record unscrambled.
inline std::string WantScrambled(CSyncSocket& sock, char chCmd, size_t nPlain)
{
    Want(sock, std::string_view(&chCmd, 1));
    const size_t nLen = nPlain / 3 * 4 + (nPlain % 3 ? nPlain % 3 + 1 : 0);
    std::vector<BYTE> scrambled(nLen);
    EXPECT_TRUE(sock.RecvAll(scrambled.data(), static_cast<int>(nLen)));
    std::string plain(nPlain, '\0');
    EXPECT_EQ(DecryptPacket(static_cast<UINT>(nLen), scrambled.data(), static_cast<UINT>(nPlain),
                            reinterpret_cast<BYTE*>(plain.data())),
              nPlain);
    return plain;
}

inline std::string Scrambled(const std::string& plain)
{
    std::string wire(plain.size() / 3 * 4 + 4, '\0');
    wire.resize(EncryptPacket(static_cast<UINT>(plain.size()), reinterpret_cast<const BYTE*>(plain.data()),
                              static_cast<UINT>(wire.size()), reinterpret_cast<BYTE*>(wire.data())));
    return wire;
}

inline std::string HostName()
{
    std::array<char, 237> name{};
    ::gethostname(name.data(), 236);
    return name.data();
}

/// The registration reply: bFlag, the file's time and size in big-endian, and the two texts.
inline std::string Ack(char chFlag = 0, char chEcho = '8')
{
    std::string plain(59, '\0');
    plain[0] = chEcho;
    plain[1 + 21] = chFlag;
    std::memcpy(&plain[1 + 50], "\x01\x02\x03\x04\x05\x06\x07\x08", 8);
    plain.append(std::string("demo\0title\0", 11));
    return plain;
}

struct SHandshake
{
    int nResult = -1;
    CString strPrjName;
    CString strTitle;
    SNAckRegReq ack{};
};

inline SHandshake Connect(CClientSock& client, const std::string& strHost, bool bAccessDB = true)
{
    SHandshake done;
    done.nResult = client.ConnectDB(strHost.c_str(), done.strPrjName, done.strTitle, done.ack, bAccessDB);
    return done;
}

/// Both connections of one client at the server, and what their first requests held.
struct SServed
{
    CSyncSocket req;
    CSyncSocket rcv;
    std::string strOpen;
    std::string strRegister;

    /// Nothing more came on either; the client has closed both.
    void WantEnds()
    {
        WantEnd(req);
        WantEnd(rcv);
    }
};

/// Plays the server's side of a handshake up to the register request, whose reply is the test's.
inline void ServeUpToRegister(CLoopback& self, SServed& served, size_t nOpenLen = 16,
                              const std::string& strReply = "7")
{
    self.Accept(served.req);
    served.strOpen = WantScrambled(served.req, '7', nOpenLen);
    Send(served.req, strReply);
    self.Accept(served.rcv);
    served.strRegister = WantScrambled(served.rcv, '8', HostName().size() + 19);
}

/// Plays the server's side of a handshake; its registration reply is given in its plain form.
inline void Serve(CLoopback& self, SServed& served, const std::string& strAck, size_t nOpenLen = 16,
                  const std::string& strReply = "7")
{
    ServeUpToRegister(self, served, nOpenLen, strReply);
    Send(served.rcv, Scrambled(strAck));
}

/// A redirect to an address: "7lan", the address and the port, both in network order.
inline std::string Redirect(UINT nPort, const char* szWord = "lan")
{
    std::string reply = std::string("7") + szWord + std::string("\x7F\0\0\1", 4);
    reply.push_back(static_cast<char>(nPort >> 8));
    reply.push_back(static_cast<char>(nPort));
    return reply;
}

/// A client whose request socket leads to a far end that the test holds.
struct SRequests
{
    SRequests()
    {
        CLoopback listener;
        EXPECT_TRUE(client.m_reqSock.Create());
        EXPECT_TRUE(client.m_reqSock._Connect("127.0.0.1", listener.Port()));
        listener.Accept(server);
        client.m_reqSock.SetTimeOut(20'000); // a busy machine must not run into it
    }
    CClientSock client;
    CSyncSocket server;
};
