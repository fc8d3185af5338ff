// The client's connection: the hello, the welcome, the receiving thread, the accessors and
// the way out, against the in-process server on loopback.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "GAME_Mod.h"
#include "Game.h"
#include "client/ClientHarness.h"
#include "client/TestMods.h"
#include "support_helpers/StderrCapture.h"

namespace clienttest {

using testing_support::StderrCapture;
namespace {

using testing::ContainsRegex;
using wire::ByteWriter;

Bytes WelcomeBytes(const wire::Welcome& welcome) {
  return Encode([&](orvex::filesystem::Stream& s) { wire::WriteWelcome(s, welcome); });
}

// The hello as the server must see it: lead byte, magic, u32 version 1, the token string.
ByteWriter HelloPrefix(const std::string& token) {
  ByteWriter hello;
  hello.U8(0x07).Chars("TOVRANE!").U32(1).Text(token);
  return hello;
}

// A regular expression that matches `text` literally.
std::string Literal(const std::string& text) {
  std::string pattern;
  for (char c : text) {
    if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) pattern += '\\';
    pattern += c;
  }
  return pattern;
}

class Handshake : public ClientTest {};

TEST_F(Handshake, HelloWithoutPasswordEndsWithTheToken) {
  testserver::TestServer server;
  Connecting connecting(server.Port(), "token-1");
  auto connection = server.Accept();

  const Bytes expected = HelloPrefix("token-1");
  EXPECT_EQ(connection->ReadBytes(expected.size()), expected);
  EXPECT_TRUE(connection->ReadAvailable(200).empty()) << "no password marker may follow";

  connection->Send(WelcomeBytes(DefaultWelcome()));
  EXPECT_NE(connecting.Finish(), nullptr);
}

TEST_F(Handshake, HelloWithPasswordAppendsTheMarkerAndThePassword) {
  testserver::TestServer server;
  Connecting connecting(server.Port(), "token-1", "pw");
  auto connection = server.Accept();

  const Bytes expected = HelloPrefix("token-1").U8(0x06).Text("pw");
  EXPECT_EQ(connection->ReadBytes(expected.size()), expected);
  EXPECT_TRUE(connection->ReadAvailable(200).empty());

  connection->Send(WelcomeBytes(DefaultWelcome()));
  EXPECT_NE(connecting.Finish(), nullptr);
}

TEST_F(Handshake, TokenOfSixtyFourBytesIsSent) {
  const std::string token(64, 'k');
  testserver::TestServer server;
  Connecting connecting(server.Port(), token);
  auto connection = server.Accept();

  EXPECT_EQ(connection->ReadHello(0).token, token);
  connection->Send(WelcomeBytes(DefaultWelcome()));
  EXPECT_NE(connecting.Finish(), nullptr);
}

TEST_F(Handshake, TokenOfSixtyFiveBytesIsRefusedBeforeAnyByteLeaves) {
  // Not a live client: only its value matters, and it must survive the failed constructor.
  char sentinel = 0;
  client::Client* const before = reinterpret_cast<client::Client*>(&sentinel);
  client::Client::_instance = before;

  testserver::TestServer server;
  Connecting connecting(server.Port(), std::string(65, 'k'));
  auto connection = server.Accept();
  try {
    connecting.Finish();
    ADD_FAILURE() << "a 65-byte token was accepted";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Bad Token Length");
  }
  EXPECT_TRUE(connection->WaitClosed(5000));
  EXPECT_TRUE(connection->Pending().empty()) << "the client sent bytes before refusing";
  EXPECT_EQ(client::Client::_instance, before);
}

TEST_F(Handshake, RefusalTextIsThrownVerbatim) {
  const std::string reason = "Server full (42/42): try again later \xE2\x9C\x93";
  const Bytes refusal =
      Encode([&](orvex::filesystem::Stream& s) { wire::WriteRefusal(s, reason); });
  EXPECT_EQ(ConstructionError(refusal), reason);
}

TEST_F(Handshake, WelcomeOfAnotherNetworkingVersionIsRefused) {
  wire::Welcome welcome = DefaultWelcome();
  welcome.networkingVersion = 2;
  EXPECT_EQ(ConstructionError(WelcomeBytes(welcome)), "Networking version mismatch");
}

// The one slow case: the client waits 5 s for the welcome.
TEST_F(Handshake, SilentServerTimesOut) {
  EXPECT_EQ(ConstructionError({}), "Connection attempt failed: Timed out");
}

TEST_F(Handshake, WelcomeSetsModeModsAndConfiguration) {
  Game::_mods = {"OLD_entry"};
  SessionOptions options;
  options.welcome.mods = {"CORE_ships", "TEST_alpha"};
  options.welcome.mode = -7;
  options.welcome.config = wire::ConfigText("gravity=9.81\nwind=2");
  Session session(options);

  EXPECT_EQ(Game::_mode, -7);
  EXPECT_EQ(Game::_mods, (std::vector<std::string>{"CORE_ships", "TEST_alpha"}));
  EXPECT_EQ(Game::config.ParseCount(), 1);
  EXPECT_EQ(Game::config.Text(), "gravity=9.81\nwind=2");
}

TEST_F(Handshake, WelcomeWithoutModsOrConfigurationStillParses) {
  Game::_mods = {"OLD_entry"};
  SessionOptions options;
  options.welcome.mods.clear();
  options.welcome.config.clear();
  Session session(options);

  EXPECT_TRUE(Game::_mods.empty());
  EXPECT_EQ(Game::config.ParseCount(), 1);
  EXPECT_EQ(Game::config.Text(), "");
}

TEST_F(Handshake, ProcessThatHostsTheServerKeepsItsGameStateYetReadsTheWholeWelcome) {
  Game::_is_server = true;
  Game::_mode = 5;
  Game::_mods = {"HOST_mod"};
  SessionOptions options;
  options.welcome.mods = {"CORE_ships", "TEST_alpha"};
  options.welcome.mode = 9;
  Session session(options);

  EXPECT_EQ(Game::_mode, 5);
  EXPECT_EQ(Game::_mods, std::vector<std::string>{"HOST_mod"});
  EXPECT_EQ(Game::config.ParseCount(), 0);

  // Any byte of the welcome left unread would be taken for a message code here.
  session.SendReliable(Encode([](orvex::filesystem::Stream& s) { wire::WriteWorld(s, "arena"); }));
  EXPECT_EQ(Game::_current_world, "arena");
}

class Accessors : public ClientTest {};

TEST_F(Accessors, ReportTheIdentityFromTheWelcome) {
  Session session;
  EXPECT_EQ(client::Client::_instance, &session.Client());
  EXPECT_EQ(client::Client::GetUsername(), "pilot");
  EXPECT_EQ(client::Client::GetPlayerID(), 0x1122334455667788u);
  EXPECT_FALSE(client::Client::IsAdmin());
}

TEST_F(Accessors, AbortWithTheAssertionLineOnceTheClientIsGone) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto destroyed = [] {
    Session session;
    session.StopReceiving();
    session.client.reset();
  };
  const std::string file = Literal(" in src/client/Client.cpp:") + "[0-9]+";
  EXPECT_EXIT((destroyed(), client::Client::GetPlayerID()), testing::KilledBySignal(SIGABRT),
              ContainsRegex(Literal("ASSERTION FAILED: (Client::_instance)") + file));
  EXPECT_EXIT((destroyed(), client::Client::GetUsername()), testing::KilledBySignal(SIGABRT),
              ContainsRegex(Literal("ASSERTION FAILED: (_instance)") + file));
  EXPECT_EXIT((destroyed(), client::Client::IsAdmin()), testing::KilledBySignal(SIGABRT),
              ContainsRegex(Literal("ASSERTION FAILED: (_instance)") + file));
}

// Connect handlers: a plain function pointer each, so their record is process-wide.
struct ConnectRecord {
  uint64_t playerId = 0;
  std::string username;
  bool alphaLeftEarly = false;
  testserver::TestConnection* connection = nullptr;
} connectRecord;

void AlphaConnect(uint64_t playerId, std::string& username,
                  orvex::filesystem::WriteOnlyStream& stream) {
  connectRecord.playerId = playerId;
  connectRecord.username = username;
  stream.WriteValue(playerId);
  stream.Write(username);
}

void SilentConnect(uint64_t, std::string&, orvex::filesystem::WriteOnlyStream&) {}

// Runs after alpha's message was written: it must not have left yet.
void BetaConnect(uint64_t, std::string&, orvex::filesystem::WriteOnlyStream& stream) {
  connectRecord.alphaLeftEarly = !connectRecord.connection->ReadAvailable(100, 100).empty();
  const std::string bytes = "beta!";
  stream.Write(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}

void LoadConnectMod(const std::string& name, GAME_Mod::ConnectHandler handler) {
  auto mod = std::make_shared<GAME_Mod>(name);
  mod->clientConnectHandler = handler;
  GAME_Mod::Load(mod);
}

class Connected : public ClientTest {};

TEST_F(Connected, ModsThatWriteSendOneMessageEachInOneFlush) {
  Session session;
  LoadConnectMod("TEST_alpha", &AlphaConnect);
  LoadConnectMod("TEST_silent", &SilentConnect);
  LoadConnectMod("TEST_beta", &BetaConnect);
  connectRecord = {};
  connectRecord.connection = &session.Connection();

  session.Client().Connected();

  EXPECT_EQ(connectRecord.playerId, 0x1122334455667788u);
  EXPECT_EQ(connectRecord.username, "pilot");
  EXPECT_FALSE(connectRecord.alphaLeftEarly) << "a connect message left before the last mod ran";

  const Bytes alphaPayload = ByteWriter().U64(0x1122334455667788u).Text("pilot");
  const Bytes expected = ByteWriter()
                             .U8(0x7F)
                             .Module(orvex::modular::ModuleID("TEST_alpha"))
                             .Block(alphaPayload)
                             .U8(0x7F)
                             .Module(orvex::modular::ModuleID("TEST_beta"))
                             .Block(Bytes{'b', 'e', 't', 'a', '!'});
  EXPECT_EQ(session.Connection().ReadBytes(expected.size()), expected);
  EXPECT_TRUE(session.Connection().ReadAvailable(200).empty())
      << "a mod that writes nothing must send nothing";
}

class ReceivingThread : public ClientTest {};

TEST_F(ReceivingThread, ReturnsOnceTheGameStops) {
  Session session;
  session.StopReceiving(/*wake=*/false);  // clears Game::isActive and joins
  SUCCEED();
}

TEST_F(ReceivingThread, ReadFailureEndsTheThreadWithOneErrorLine) {
  client::Client::error = "earlier loss";
  StderrCapture captured;
  Session session;

  const Bytes world = Encode([](orvex::filesystem::Stream& s) { wire::WriteWorld(s, "abcdefgh"); });
  session.Connection().Send(Bytes(world.begin(), world.begin() + 7));
  session.Connection().Close();
  ASSERT_TRUE(captured.WaitFor("\n"));
  session.StopReceiving();

  const std::string text = captured.Text();
  EXPECT_THAT(text, testing::MatchesRegex("ERROR: [^\n]+\n"));
  EXPECT_EQ(client::Client::error, "earlier loss");
  EXPECT_FALSE(Game::QuitRequested());
}

class Destruction : public ClientTest {};

TEST_F(Destruction, SendsDisconnectAndCloses) {
  SessionOptions options;
  options.startReceiving = false;
  Session session(options);

  session.client.reset();
  EXPECT_EQ(client::Client::_instance, nullptr);
  EXPECT_EQ(session.Connection().ReadBytes(1), Bytes{0x02});
  EXPECT_TRUE(session.Connection().WaitClosed(5000));
  EXPECT_TRUE(session.Connection().Pending().empty());
}

TEST_F(Destruction, CompletesWhenTheServerIsGone) {
  SessionOptions options;
  options.startReceiving = false;
  Session session(options);
  session.Connection().Close();
  session.connection.reset();

  EXPECT_NO_THROW(session.client.reset());
  EXPECT_EQ(client::Client::_instance, nullptr);
}

}  // namespace
}  // namespace clienttest
