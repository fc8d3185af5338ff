// The connection: hello forms, construction failures, welcome, connect handlers, the way out.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>

#include <csignal>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ClientSession.h"
#include "GAME_Mod.h"
#include "Game.h"
#include "Hex.h"
#include "StderrCapture.h"
#include "TestMods.h"

namespace {

using namespace testlib;
using testing::ContainsRegex;

class Connection : public testing::Test {
  CleanClientState clean;
};

TEST_F(Connection, HelloForms) {
  const struct {
    const char* name;
    std::string token, password, host;
  } rows[] = {
      {"without password", "token-1", "", "127.0.0.1"},
      {"with password", "token-1", "pw", "127.0.0.1"},
      {"64-byte token", std::string(64, 'k'), "", "127.0.0.1"},
      {"IPv6 host", "t", "", "::1"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    testserver::TestServer server(row.host);
    auto connecting = Connect(server.Port(), row.token, row.password, row.host);
    auto connection = server.Accept();
    // Lead byte, magic, version 1, the token; with a password, its marker and the password.
    wire::ByteWriter expected;
    expected.U8(7).Chars("TOVRANE!").U32(1).Text(row.token);
    if (!row.password.empty()) expected.U8(6).Text(row.password);
    EXPECT_HEX_EQ(connection->ReadBytes(expected.bytes().size()), expected.bytes());
    EXPECT_TRUE(connection->ReadAvailable(200).empty()) << "bytes after the hello";
    connection->Send(Welcome());
    EXPECT_NE(connecting.get(), nullptr);
  }
}

long PeakResidentMb() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss / 1024;
}

// Each row is the server's answer to the hello and the constructor's exception text (a
// part of it for the counts). A count that asks for more than its cap is refused before
// anything is allocated, while the server stays connected: only the count can end the wait.
TEST_F(Connection, ConstructionFailures) {
  wire::Welcome otherVersion = DefaultWelcome(), unterminated = DefaultWelcome(),
                innerZero = DefaultWelcome();
  otherVersion.networkingVersion = 2;
  // Found by fuzzing the welcome: the text went to the parser, which reads to a zero byte.
  unterminated.config = {'g', 'o'};
  innerZero.config = {'a', 'b', '\0', 'c', 'd'};
  const std::string reason = "Server full (42/42): try again later \xE2\x9C\x93";
  // Status, version, server tag, player id.
  const auto head = [] { return wire::ByteWriter().U8(1).U16(1).U16(0x0A0B).U64(42); };
  // Names each within their cap but never ending: 256 of the longest cross the list's cap
  // with the last one, so no byte is left unread when the client gives up.
  wire::ByteWriter longModList = head().Text("pilot");
  for (int i = 0; i < 256; ++i) longModList.Text(std::string(65535, 'm'));
  struct Row {
    std::string name;
    Bytes reply;
    bool close, hosting;
    std::string error;  // "": the client is built
  };
  // clang-format off
  std::vector<Row> rows = {
      {"refusal text verbatim", Refusal(reason), false, false, reason},
      {"other networking version", Welcome(otherVersion), false, false, "Networking version mismatch"},
      {"closed before the welcome", {}, true, false, "Connection closed by peer"},
      // The client waits 5 s of real time for the welcome: a socket poll, not the Timer.
      {"silence", {}, false, false, "Connection attempt failed: Timed out"},
      {"huge user name", head().U32(~0u), false, false, "4294967295 bytes exceeds the limit"},
      {"huge mod name", head().Text("pilot").U32(65536), false, false, "65536 bytes exceeds the limit"},
      {"huge mod list", longModList, false, false, "16777216 bytes exceeds the limit"},
      {"huge configuration", head().Text("pilot").Text("").I32(3).U32(~0u), false, false, "4294967295 bytes exceeds the limit"},
      {"huge refusal", wire::ByteWriter().U8(0).U32(0x80000000), false, false, "2147483648 bytes exceeds the limit"},
      {"configuration without zero byte", Welcome(unterminated), false, false, "Configuration text is not zero-terminated"},
      {"configuration ends at its first zero", Welcome(innerZero), false, false, ""},
      {"a hosting process never parses the configuration", Welcome(unterminated), false, true, ""},
  };
  // clang-format on
  wire::Welcome welcome = DefaultWelcome();
  welcome.mods = {"CORE_ship", "DEMO_sandbox"};
  const Bytes whole = Welcome(welcome);
  for (size_t length = 0; length < whole.size(); ++length) {
    rows.push_back({"welcome cut after " + std::to_string(length),
                    Bytes(whole.begin(), whole.begin() + length), true, false,
                    "Connection closed by peer"});
  }
  const long before = PeakResidentMb();
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    ResetClientState();
    Game::_is_server = row.hosting;
    const std::string error = ConstructionError(row.reply, row.close);
    EXPECT_THAT(error, testing::HasSubstr(row.error));
    EXPECT_EQ(error.empty(), row.error.empty());
    EXPECT_EQ(error.find('\n'), std::string::npos);
    EXPECT_TRUE(Game::_mods.empty());
    EXPECT_EQ(Game::config.ParseCount(), row.error.empty() && !row.hosting ? 1 : 0);
    if (error.empty() && !row.hosting) {
      EXPECT_EQ(Game::config.Text(), "ab");
    }
  }
  EXPECT_LT(PeakResidentMb() - before, 256) << "MiB: memory followed a count";
}

TEST_F(Connection, TokenOfSixtyFiveBytesIsRefusedBeforeAnyByteLeaves) {
  char sentinel = 0;  // not a live client: only its value matters
  client::Client* const before = reinterpret_cast<client::Client*>(&sentinel);
  client::Client::_instance = before;
  testserver::TestServer server;
  auto connecting = Connect(server.Port(), std::string(65, 'k'));
  auto connection = server.Accept();
  try {
    connecting.get();
    ADD_FAILURE() << "a 65-byte token was accepted";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "Bad Token Length");
  }
  EXPECT_TRUE(connection->WaitClosed(5000));
  EXPECT_TRUE(connection->Pending().empty()) << "the client sent bytes before refusing";
  EXPECT_EQ(client::Client::_instance, before);
}

TEST_F(Connection, WelcomeSetsTheGameUnlessTheProcessHostsTheServer) {
  const struct {
    const char* name;
    bool hosting;
    std::vector<std::string> mods;
    std::string config;
  } rows[] = {
      {"client", false, {"CORE_ships", "TEST_alpha"}, "gravity=9.81\nwind=2"},
      {"hosting the server", true, {"CORE_ships", "TEST_alpha"}, "gravity=9.81\nwind=2"},
      {"no mods nor configuration", false, {}, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    ResetClientState();
    Game::_is_server = row.hosting;
    Game::_mode = 5;
    Game::_mods = {"OLD_entry"};
    SessionOptions options;
    options.welcome.mods = row.mods;
    options.welcome.mode = -7;
    options.welcome.config =
        row.config.empty() ? std::vector<char>{} : wire::ConfigText(row.config);
    Session session(options);
    EXPECT_EQ(Game::_mode, row.hosting ? 5 : -7);
    EXPECT_EQ(Game::_mods, row.hosting ? std::vector<std::string>{"OLD_entry"} : row.mods);
    EXPECT_EQ(Game::config.ParseCount(), row.hosting ? 0 : 1);
    EXPECT_EQ(Game::config.Text(), row.hosting ? "" : row.config);
    // Any byte of the welcome left unread would be taken for a message code here.
    session.SendReliable(World("arena"));
    EXPECT_EQ(Game::_current_world, "arena");
    EXPECT_EQ(client::Client::_instance, &session.Client());
    EXPECT_EQ(client::Client::GetUsername(), "pilot");
    EXPECT_EQ(client::Client::GetPlayerID(), kPlayerId);
    EXPECT_FALSE(client::Client::IsAdmin());
  }
}

TEST_F(Connection, AccessorsAbortWithTheAssertionLineOnceTheClientIsGone) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto destroyed = [] {
    Session session;
    session.StopReceiving();
    session.client.reset();
  };
  const std::string file = " in src/client/Client\\.cpp:[0-9]+";
  EXPECT_EXIT((destroyed(), client::Client::GetPlayerID()), testing::KilledBySignal(SIGABRT),
              ContainsRegex("ASSERTION FAILED: \\(Client::_instance\\)" + file));
  EXPECT_EXIT((destroyed(), client::Client::GetUsername()), testing::KilledBySignal(SIGABRT),
              ContainsRegex("ASSERTION FAILED: \\(_instance\\)" + file));
  EXPECT_EXIT((destroyed(), client::Client::IsAdmin()), testing::KilledBySignal(SIGABRT),
              ContainsRegex("ASSERTION FAILED: \\(_instance\\)" + file));
}

// Connect handlers are plain function pointers, so what they see is process-wide.
testserver::TestConnection* connectServer = nullptr;
bool alphaLeftEarly = false;

void AlphaConnect(uint64_t playerId, std::string& username,
                  orvex::filesystem::WriteOnlyStream& stream) {
  stream.WriteValue(playerId);
  stream.Write(username);
}
void SilentConnect(uint64_t, std::string&, orvex::filesystem::WriteOnlyStream&) {}
// Runs after alpha's message was written: that must not have left yet.
void BetaConnect(uint64_t, std::string&, orvex::filesystem::WriteOnlyStream& stream) {
  alphaLeftEarly = !connectServer->ReadAvailable(100, 100).empty();
  stream.Write(reinterpret_cast<const unsigned char*>("beta!"), 5);
}

TEST_F(Connection, ConnectHandlersThatWriteSendOneMessageEachInOneFlush) {
  Session session;
  for (const auto& [name, handler] : {std::pair{"TEST_alpha", &AlphaConnect},
                                      {"TEST_silent", &SilentConnect},
                                      {"TEST_beta", &BetaConnect}}) {
    auto mod = std::make_shared<GAME_Mod>(name);
    mod->clientConnectHandler = handler;
    GAME_Mod::Load(mod);
  }
  connectServer = &session.Connection();
  session.Client().Connected();

  EXPECT_FALSE(alphaLeftEarly) << "a connect message left before the last mod ran";
  const Bytes expected =
      wire::ByteWriter()
          .Append(ModuleRecord("TEST_alpha", wire::ByteWriter().U64(kPlayerId).Text("pilot")))
          .Append(ModuleRecord("TEST_beta", TextBytes("beta!")));
  EXPECT_HEX_EQ(session.Connection().ReadBytes(expected.size()), expected);
  EXPECT_TRUE(session.Connection().ReadAvailable(200).empty()) << "the silent mod sent bytes";
}

TEST_F(Connection, ReceivingThreadEndsOnStopOrWithOneErrorLineOnAReadFailure) {
  Session stopped;
  stopped.StopReceiving(/*wake=*/false);  // returns once the game stops

  client::Client::error = "earlier loss";
  StderrCapture captured;
  Session session;
  const Bytes world = World("abcdefgh");
  session.Connection().Send(Bytes(world.begin(), world.begin() + 7));
  session.Connection().Close();
  ASSERT_TRUE(captured.WaitFor("\n"));
  session.StopReceiving();
  EXPECT_THAT(captured.Text(), testing::MatchesRegex("ERROR: [^\n]+\n"));
  EXPECT_EQ(client::Client::error, "earlier loss");
  EXPECT_FALSE(Game::QuitRequested());
}

TEST_F(Connection, DestructionSendsDisconnectAndClosesEvenWithoutServer) {
  SessionOptions options;
  options.startReceiving = false;
  Session session(options);
  session.client.reset();
  EXPECT_EQ(client::Client::_instance, nullptr);
  EXPECT_EQ(session.Connection().ReadBytes(1), Disconnect());
  EXPECT_TRUE(session.Connection().WaitClosed(5000));
  EXPECT_TRUE(session.Connection().Pending().empty());

  Session gone(options);
  gone.connection.reset();
  EXPECT_NO_THROW(gone.client.reset());
  EXPECT_EQ(client::Client::_instance, nullptr);
}

}  // namespace
