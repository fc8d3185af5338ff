// make_capture: writes a small, deterministic capture of the protocol for the dissector's
// test. The client's bytes are the real ones: a client::Client runs against the in-process
// test server, and every flush it makes is recorded as one TCP segment or datagram. The
// server's bytes come from the wire writers. Ports in the file are fixed (server 7777, or
// --port) so the file is the same on every run.
//
// The capture, in order:
//   stream 0 (client port 40001): hello with password; one segment of welcome, world,
//     admin status and two entity creates; the client's connect-time module message; an
//     entity update split over two segments, the second also carrying a move and a
//     destroy; a module message; the client's frame flush (two entity actions and a
//     module message in one segment); server and client datagrams (module records,
//     transforms, physics, keep-alives); a transforms datagram cut inside a record; the
//     server's disconnect, the client's keep-alive and disconnect.
//   stream 1 (client port 40003): a hello without password, refused with "Wrong password".
//   stream 2 (client port 40005): a hand-made hello whose token count is 1000, refused.
//   then, on stream 0's datagram ports: a physics datagram repeating the newest sequence
//     and a transforms datagram whose sequence goes back.
#include <exception>
#include <functional>
#include <initializer_list>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <CLI/CLI.hpp>

#include "GAME_Mod.h"
#include "TestServer.h"
#include "client/Client.h"
#include "common/Pcapng.h"
#include "filesystem/StreamValues.h"
#include "game/Host.h"
#include "game/entity/ClientSideEntity.h"
#include "net/TcpConnection.h"
#include "protocol/Wire.h"

namespace {

using capture::Bytes;
using game::entity::Id;
using orvex::modular::ModuleID;

constexpr const char* kChatMod = "DEMO_chat";

// Ids whose text form reads well: a tag, then capital hex of the remaining bytes.
const Id kShip{0x0000000150494853ull, 0x0807060504030201ull};    // SHIP01000000 0102...08
const Id kTurret{0x0000000252525554ull, 0x1817161514131211ull};  // TURR02000000 1112...18

Bytes Text(const std::string& text) {
  return Bytes(text.begin(), text.end());
}

using wire::Encode;
using wire::Join;

// What the server received from the real client, one entry per flush.
struct ClientBytes {
  Bytes hello, connect, frame, keepAlive, disconnect;
  Bytes moduleDatagram, keepAliveDatagram;
  Bytes refusedHello;
};

// The mod's handlers: a greeting when connected, and one reliable and one unreliable
// message in the first frame only.
void ChatConnect(uint64_t, std::string& username, orvex::filesystem::WriteOnlyStream& out) {
  const std::string text = "hello from " + username;
  out.Write(reinterpret_cast<const unsigned char*>(text.data()), text.size());
}
void ChatSend(orvex::filesystem::WriteOnlyStream& reliable,
              orvex::filesystem::WriteOnlyStream& unreliable) {
  static int frames = 0;
  if (frames++ != 0) return;
  const std::string say = "say:hi", aim = "aim:12";
  reliable.Write(reinterpret_cast<const unsigned char*>(say.data()), say.size());
  unreliable.Write(reinterpret_cast<const unsigned char*>(aim.data()), aim.size());
}

wire::Welcome MakeWelcome() {
  wire::Welcome welcome;
  welcome.serverTag = 0x0A0B;
  welcome.playerId = 1001;
  welcome.username = "pilot";
  welcome.mods = {"CORE_ship", kChatMod};
  welcome.mode = 1;
  welcome.config = wire::ConfigText("gravity=9.81");
  return welcome;
}

// Builds a client on a helper thread while the server side reads its hello and answers
// with `reply`. Returns the client (null when its constructor threw) and the hello.
std::unique_ptr<client::Client> Connect(testserver::TestServer& server,
                                        std::unique_ptr<testserver::TestConnection>& connection,
                                        const std::string& token, const std::string& password,
                                        const Bytes& reply, Bytes& hello) {
  std::unique_ptr<client::Client> client;
  std::exception_ptr failure;
  std::thread constructing([&] {
    try {
      client = std::make_unique<client::Client>("127.0.0.1", server.Port(), token, password);
    } catch (...) {
      failure = std::current_exception();
    }
  });
  try {
    connection = server.Accept();
    hello = connection->ReadAvailable(200);
    connection->Send(reply);
  } catch (...) {
    constructing.join();
    throw;
  }
  constructing.join();
  if (failure && reply[0] == 1) std::rethrow_exception(failure);
  return client;
}

// Checks that recorded TCP bytes are whole client messages (none cut, none merged away).
void ExpectMessages(const Bytes& bytes, size_t count, const char* what) {
  auto in = orvex::filesystem::ReadOnlyStream(bytes.data(), bytes.size());
  size_t n = 0;
  for (; orvex::filesystem::PositionOf(in) < bytes.size(); ++n) wire::ReadClientMessage(in);
  if (n != count) {
    throw std::runtime_error(std::string(what) + ": expected " + std::to_string(count) +
                             " messages, recorded " + std::to_string(n));
  }
}

Bytes NextDatagram(testserver::TestServer& server) {
  auto datagram = server.NextDatagram(5000);
  if (!datagram) throw std::runtime_error("the client sent no datagram");
  if (!wire::ParseClientDatagram(datagram->bytes.data(), datagram->bytes.size())) {
    throw std::runtime_error("the client sent a datagram that is not one");
  }
  return datagram->bytes;
}

ClientBytes RecordClient() {
  auto chat = std::make_shared<GAME_Mod>(kChatMod);
  chat->clientConnectHandler = &ChatConnect;
  chat->clientSendHandler = &ChatSend;
  orvex::engine::LoadMod(chat);

  ClientBytes out;
  testserver::TestServer server;
  std::unique_ptr<testserver::TestConnection> connection;
  const Bytes welcome = Encode([](wire::Stream& s) { wire::WriteWelcome(s, MakeWelcome()); });
  auto client = Connect(server, connection, "pilot-token", "secret", welcome, out.hello);
  size_t consumed = 0;
  auto hello = wire::ParseHello(out.hello.data(), out.hello.size(), consumed);
  if (!hello || !hello->hasPassword || consumed != out.hello.size()) {
    throw std::runtime_error("the recorded hello is not one whole hello with a password");
  }

  client->Connected();
  out.connect = connection->ReadAvailable(200);
  ExpectMessages(out.connect, 1, "connect");

  // The game queues two actions on the ship; the frame also carries the mod's messages.
  auto ship = game::entity::ClientSideEntity::Create<game::entity::ClientSideEntity>(
      kShip, "CORE_ship", "ship");
  for (const std::string& action : {std::string("fire"), std::string("thrust:0.75")}) {
    orvex::filesystem::Stream stream;
    stream.Write(reinterpret_cast<const unsigned char*>(action.data()), action.size());
    orvex::engine::QueueAction(*ship, std::move(stream));
  }
  client->Send();
  out.frame = connection->ReadAvailable(200);
  ExpectMessages(out.frame, 3, "frame");
  out.moduleDatagram = NextDatagram(server);

  // A frame with nothing to say: keep-alives on both channels.
  client->Send();
  out.keepAlive = connection->ReadAvailable(200);
  ExpectMessages(out.keepAlive, 1, "keep-alive");
  out.keepAliveDatagram = NextDatagram(server);

  client.reset();
  connection->WaitClosed(5000);
  out.disconnect = connection->Pending();
  ExpectMessages(out.disconnect, 1, "disconnect");
  ship.reset();
  game::entity::ClientSideEntity::Destroy(kShip);

  // A second client without the password is refused.
  std::unique_ptr<testserver::TestConnection> refused;
  const Bytes refusal = Encode([](wire::Stream& s) { wire::WriteRefusal(s, "Wrong password"); });
  if (Connect(server, refused, "guest", "", refusal, out.refusedHello)) {
    throw std::runtime_error("the refused client was built");
  }
  return out;
}

void WriteCapture(const std::string& path, const ClientBytes& client, uint16_t serverPort) {
  capture::CaptureFile file(path);
  const uint16_t clientPort = 40001, clientUdpPort = 40002;
  const Id none{};
  const ModuleID ship("CORE_ship"), chat(kChatMod);

  capture::TcpConnection tcp(file, clientPort, serverPort);
  tcp.FromClient(client.hello);
  tcp.FromServer(Join({
      Encode([](wire::Stream& s) { wire::WriteWelcome(s, MakeWelcome()); }),
      Encode([](wire::Stream& s) { wire::WriteWorld(s, "sandbox"); }),
      Encode([](wire::Stream& s) { wire::WriteAdminStatus(s, "player", 0); }),
      Encode([&](wire::Stream& s) {
        wire::WriteEntityCreate(s,
                                {kShip, ship, "ship", none, {1, 2, -0.5}, {}, 0, 1, {0xAA, 0xBB}});
      }),
      Encode([&](wire::Stream& s) {
        wire::WriteEntityCreate(
            s, {kTurret, ship, "turret", kShip, {0, 0, 1.5}, {0.5, 0.5, 0.5, 0.5}, 1, 0, {}});
      }),
  }));
  tcp.FromClient(client.connect);
  const Bytes update = Encode([&](wire::Stream& s) {
    wire::WriteEntityUpdate(s, {kShip, none, {3, 4, 5}, {}, 1, 0, Text("fuel=80")});
  });
  tcp.FromServer(Bytes(update.begin(), update.begin() + 40));
  tcp.FromServer(Join({
      Bytes(update.begin() + 40, update.end()),
      Encode([&](wire::Stream& s) {
        wire::WriteEntityMove(s, {kTurret, 1, {0, 0.5, 1.5}, {}});
      }),
      Encode([&](wire::Stream& s) { wire::WriteEntityDestroy(s, kTurret); }),
  }));
  tcp.FromServer(
      Encode([&](wire::Stream& s) { wire::WriteModuleMessage(s, chat, Text("welcome")); }));
  tcp.FromClient(client.frame);

  file.Udp(clientUdpPort, serverPort, client.moduleDatagram);
  file.Udp(serverPort, clientUdpPort, wire::ModuleDatagram(chat, Text("aim:12")));
  const wire::StateHeader header{12.5, 42, 0, 0, 1};
  file.Udp(serverPort, clientUdpPort,
           wire::TransformsDatagram(header, kShip,
                                    {{kTurret, {0, 0, 1.5}, {1, 0, 0, 0}},
                                     {Id{0x000000034E4F5244ull, 0x2827262524232221ull},  // DRON...
                                      {-7.25, 8, 0.125},
                                      {0.5f, 0.5f, -0.5f, 0.5f}}}));
  file.Udp(serverPort, clientUdpPort,
           wire::PhysicsDatagram(header, {{kShip, {1, 0, 0}, {0, 0, 0.25}}}));
  file.Udp(clientUdpPort, serverPort, client.keepAliveDatagram);
  // Cut inside the second record: the end marker never comes.
  Bytes cut = wire::TransformsDatagram(
      {12.55, 43, 0, 0, 1}, kShip,
      {{kTurret, {0, 0, 1.5}, {1, 0, 0, 0}}, {kShip, {1, 1, 1}, {1, 0, 0, 0}}}, false);
  cut.resize(wire::kTransformsHeaderSize + wire::kTransformRecordSize + 20);
  file.Udp(serverPort, clientUdpPort, cut);

  tcp.FromServer(Encode([](wire::Stream& s) { wire::WriteDisconnect(s); }));
  tcp.FromClient(client.keepAlive);
  tcp.FromClient(client.disconnect);
  tcp.Close();

  capture::TcpConnection refused(file, 40003, serverPort);
  refused.FromClient(client.refusedHello);
  refused.FromServer(Encode([](wire::Stream& s) { wire::WriteRefusal(s, "Wrong password"); }));
  refused.Close();

  // No real client sends this: its token count is over the limit of 64.
  const Bytes malformed =
      wire::ByteWriter().U8(0x07).Chars("TOVRANE!").U32(1).U32(1000).Chars("abc");
  std::string reason = "Malformed hello";
  try {
    size_t consumed = 0;
    wire::ParseHello(malformed.data(), malformed.size(), consumed);
  } catch (const std::exception& e) {
    reason += std::string(": ") + e.what();
  }
  capture::TcpConnection bad(file, 40005, serverPort);
  bad.FromClient(malformed);
  bad.FromServer(Encode([&](wire::Stream& s) { wire::WriteRefusal(s, reason); }));
  bad.Close();

  file.Udp(serverPort, clientUdpPort,
           wire::PhysicsDatagram(header, {{kShip, {2, 0, 0}, {0, 0, 0.5}}}));
  file.Udp(
      serverPort, clientUdpPort,
      wire::TransformsDatagram({12.45, 41, 0, 0, 1}, kShip, {{kTurret, {0, 0, 1}, {1, 0, 0, 0}}}));
  file.Close();
}

}  // namespace

int main(int argc, char** argv) {
  std::string path;
  uint16_t port = 7777;
  CLI::App app{"Writes a deterministic pcapng capture of the protocol, made with the real client."};
  app.set_version_flag("--version", std::string("make_capture ") + ORVEX_VERSION);
  app.add_option("output", path, "the pcapng file to write")->required();
  app.add_option("--port", port, "the server's port in the capture")->capture_default_str();
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    std::cerr << "make_capture: " << e.what() << std::endl;
    return 64;
  }
  try {
    WriteCapture(path, RecordClient(), port);
  } catch (const std::exception& e) {
    std::cerr << "make_capture: " << e.what() << std::endl;
    return 1;
  }
  return 0;
}
