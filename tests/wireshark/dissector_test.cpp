// The Wireshark dissector (tools/wireshark/orvex.lua) run by tshark over the capture that
// make_capture records from the real client. Expected values come from the scenario the
// tool plays (see its header comment) and from docs/protocol.md, not from the dissector.
// Skips when tshark is not installed.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

// The fields every case may look at; each row of tshark's output holds them in this order.
const std::vector<std::string> kFields = {"frame.number",
                                          "_ws.col.Info",
                                          "orvex.code",
                                          "orvex.lead",
                                          "orvex.magic",
                                          "orvex.hello.version",
                                          "orvex.hello.token",
                                          "orvex.hello.password_marker",
                                          "orvex.hello.password",
                                          "orvex.status",
                                          "orvex.version",
                                          "orvex.server_tag",
                                          "orvex.player_id",
                                          "orvex.welcome.username",
                                          "orvex.welcome.mod",
                                          "orvex.welcome.mode",
                                          "orvex.welcome.config",
                                          "orvex.refusal.reason",
                                          "orvex.world",
                                          "orvex.admin.privilege",
                                          "orvex.admin.flag",
                                          "orvex.entity",
                                          "orvex.entity.word0",
                                          "orvex.entity.word1",
                                          "orvex.parent",
                                          "orvex.parent.word0",
                                          "orvex.module",
                                          "orvex.module.prefix",
                                          "orvex.module.name",
                                          "orvex.interface",
                                          "orvex.position.x",
                                          "orvex.position.y",
                                          "orvex.position.z",
                                          "orvex.orientation.w",
                                          "orvex.orientation.x",
                                          "orvex.smooth",
                                          "orvex.force_snap",
                                          "orvex.data.length",
                                          "orvex.data",
                                          "orvex.state.time",
                                          "orvex.state.sequence",
                                          "orvex.state.divisor",
                                          "orvex.state.records",
                                          "orvex.orientation32.w",
                                          "orvex.orientation32.z",
                                          "orvex.velocity.x",
                                          "orvex.vector2.z",
                                          "orvex.end.word0",
                                          "orvex.malformed",
                                          "_ws.expert.message"};

using Row = std::map<std::string, std::string>;

std::string Hex(const std::string& text) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  for (unsigned char c : text) {
    hex += kDigits[c >> 4];
    hex += kDigits[c & 0xF];
  }
  return hex;
}

std::string Quote(const std::string& text) {
  return "'" + text + "'";
}

bool HaveTshark() {
  return std::system("command -v tshark >/dev/null 2>&1") == 0;
}

class Dissector : public ::testing::Test {
 protected:
  // One capture per process; tshark gets a home of its own there, so no personal
  // preference or plugin (such as an installed copy of this dissector) takes part, and
  // nothing is written into the real home.
  static void SetUpTestSuite() {
    if (!HaveTshark()) return;
    dir_ = fs::temp_directory_path() / ("orvex-wireshark-" + std::to_string(getpid()));
    fs::create_directories(dir_);
    capture_ = (dir_ / "capture.pcap").string();
    const std::string make = std::string(MAKE_CAPTURE_PATH) + " " + Quote(capture_);
    ASSERT_EQ(std::system(make.c_str()), 0) << make;
  }
  static void TearDownTestSuite() {
    if (!dir_.empty()) fs::remove_all(dir_);
  }
  void SetUp() override {
    if (!HaveTshark()) GTEST_SKIP() << "tshark is not installed (./x installs it)";
  }

  // Runs tshark with `options` and returns its standard output; fails the case when it
  // exits non-zero or says anything about Lua.
  static std::string Tshark(const std::string& options) {
    const std::string home = dir_.string();
    const std::string err = (dir_ / "stderr.txt").string();
    const std::string command = "HOME=" + Quote(home) + " XDG_CONFIG_HOME=" + Quote(home) +
                                " WIRESHARK_CONFIG_DIR=" + Quote(home) + " tshark -n -X " +
                                Quote("lua_script:" DISSECTOR_PATH) + " -r " + Quote(capture_) +
                                " " + options + " 2>" + Quote(err);
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    EXPECT_NE(pipe, nullptr);
    if (!pipe) return out;
    char buffer[4096];
    size_t n;
    while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
    const int status = pclose(pipe);
    std::ifstream in(err);
    const std::string errors((std::istreambuf_iterator<char>(in)),
                             std::istreambuf_iterator<char>());
    EXPECT_EQ(status, 0) << command << "\n" << errors;
    EXPECT_EQ(errors.find("Lua"), std::string::npos) << errors;
    return out;
  }

  // Every frame's fields, repeated values joined by '|'; frame numbers count from 1.
  static std::vector<Row> Rows(const std::string& extra = "") {
    std::string options = "-T fields -E separator=/t -E occurrence=a -E aggregator='|' " + extra;
    for (const std::string& field : kFields) options += " -e " + field;
    std::vector<Row> rows(1);
    std::istringstream lines(Tshark(options));
    for (std::string line; std::getline(lines, line);) {
      Row row;
      std::istringstream cells(line);
      std::string cell;
      for (const std::string& field : kFields) {
        std::getline(cells, cell, '\t');
        row[field] = cell;
      }
      rows.push_back(row);
    }
    return rows;
  }

  static const std::vector<Row>& Decoded() {
    static const std::vector<Row> rows = Rows();
    return rows;
  }
  static std::string At(size_t frame, const std::string& field) {
    const std::vector<Row>& rows = Decoded();
    if (frame >= rows.size()) return "<no frame " + std::to_string(frame) + ">";
    return rows[frame].at(field);
  }

  static inline fs::path dir_;
  static inline std::string capture_;
};

TEST_F(Dissector, HandshakeBothWays) {
  // The real client's hello: lead byte, magic, version 1, token, marker, password.
  EXPECT_EQ(At(4, "orvex.lead"), "0x07");
  EXPECT_EQ(At(4, "orvex.magic"), "TOVRANE!");
  EXPECT_EQ(At(4, "orvex.hello.version"), "1");
  EXPECT_EQ(At(4, "orvex.hello.token"), "pilot-token");
  EXPECT_EQ(At(4, "orvex.hello.password_marker"), "0x06");
  EXPECT_EQ(At(4, "orvex.hello.password"), "secret");
  EXPECT_EQ(At(4, "_ws.col.Info"), "Hello token=\"pilot-token\" with password");

  // The welcome leads the server's first segment; the empty string ends the mod list.
  EXPECT_EQ(At(5, "orvex.status"), "1");
  EXPECT_EQ(At(5, "orvex.version"), "1");
  EXPECT_EQ(At(5, "orvex.server_tag"), "0x0a0b");
  EXPECT_EQ(At(5, "orvex.player_id"), "1001");
  EXPECT_EQ(At(5, "orvex.welcome.username"), "pilot");
  EXPECT_EQ(At(5, "orvex.welcome.mod"), "CORE_ship|DEMO_chat|");
  EXPECT_EQ(At(5, "orvex.welcome.mode"), "1");
  EXPECT_EQ(At(5, "orvex.welcome.config"), "gravity=9.81");

  // A client without the password: a hello without marker, then the refusal.
  EXPECT_EQ(At(26, "orvex.hello.token"), "guest");
  EXPECT_EQ(At(26, "orvex.hello.password_marker"), "");
  EXPECT_EQ(At(27, "orvex.status"), "0");
  EXPECT_EQ(At(27, "orvex.refusal.reason"), "Wrong password");
  EXPECT_EQ(At(27, "orvex.code"), "");
}

TEST_F(Dissector, ServerReliableMessages) {
  // One segment: welcome, world, admin status and two creates.
  EXPECT_EQ(At(5, "orvex.code"), "0x04|0x05|0x40|0x40");
  EXPECT_EQ(At(5, "orvex.world"), "sandbox");
  EXPECT_EQ(At(5, "orvex.admin.privilege"), "player");
  EXPECT_EQ(At(5, "orvex.admin.flag"), "0");
  // Id text: the tag bytes, then bytes 4-15 in capital hex; words as little-endian u64.
  EXPECT_EQ(At(5, "orvex.entity"), "SHIP010000000102030405060708|TURR020000001112131415161718");
  EXPECT_EQ(At(5, "orvex.entity.word0"), "0x0000000150494853|0x0000000252525554");
  EXPECT_EQ(At(5, "orvex.entity.word1"), "0x0807060504030201|0x1817161514131211");
  EXPECT_EQ(At(5, "orvex.parent"), "|SHIP010000000102030405060708");
  EXPECT_EQ(At(5, "orvex.parent.word0"), "0x0000000000000000|0x0000000150494853");
  // CORE_ship in base 37, as docs/protocol.md works it out.
  EXPECT_EQ(At(5, "orvex.module"), "CORE_ship|CORE_ship");
  EXPECT_EQ(At(5, "orvex.module.prefix"), "799065|799065");
  EXPECT_EQ(At(5, "orvex.module.name"), "1343684|1343684");
  EXPECT_EQ(At(5, "orvex.interface"), "ship|turret");
  EXPECT_EQ(At(5, "orvex.position.z"), "-0.5|1.5");
  EXPECT_EQ(At(5, "orvex.orientation.w"), "1|0.5");
  EXPECT_EQ(At(5, "orvex.smooth"), "0|1");
  EXPECT_EQ(At(5, "orvex.force_snap"), "1|0");
  EXPECT_EQ(At(5, "orvex.data.length"), "2|0");
  EXPECT_EQ(At(5, "orvex.data"), "aabb");
  EXPECT_EQ(At(5, "_ws.col.Info")
                .rfind("Welcome player=1001 user=pilot mods=CORE_ship,DEMO_chat; "
                       "World sandbox; Admin status player admin=0; Entity create "
                       "id=SHIP010000000102030405060708 module=CORE_ship",
                       0),
            0u)
      << At(5, "_ws.col.Info");

  // Update (the second id null), move (flag before the position) and destroy.
  EXPECT_EQ(At(8, "orvex.code"), "0x42|0x46|0x41");
  EXPECT_EQ(At(8, "orvex.entity"),
            "SHIP010000000102030405060708|TURR020000001112131415161718|"
            "TURR020000001112131415161718");
  EXPECT_EQ(At(8, "orvex.position.x"), "3|0");
  EXPECT_EQ(At(8, "orvex.position.y"), "4|0.5");
  EXPECT_EQ(At(8, "orvex.smooth"), "1|1");
  EXPECT_EQ(At(8, "orvex.force_snap"), "0");
  EXPECT_EQ(At(8, "orvex.data"), Hex("fuel=80"));

  EXPECT_EQ(At(9, "orvex.code"), "0x7f");
  EXPECT_EQ(At(9, "orvex.module"), "DEMO_chat");
  EXPECT_EQ(At(9, "orvex.data"), Hex("welcome"));
  EXPECT_EQ(At(17, "orvex.code"), "0x02");
}

TEST_F(Dissector, ClientReliableMessages) {
  // The connect handler's message, then one frame's flush: two actions and the mod's message.
  EXPECT_EQ(At(6, "orvex.code"), "0x7f");
  EXPECT_EQ(At(6, "orvex.module"), "DEMO_chat");
  EXPECT_EQ(At(6, "orvex.data"), Hex("hello from pilot"));
  EXPECT_EQ(At(10, "orvex.code"), "0x43|0x43|0x7f");
  EXPECT_EQ(At(10, "orvex.entity"), "SHIP010000000102030405060708|SHIP010000000102030405060708");
  EXPECT_EQ(At(10, "orvex.data.length"), "4|11|6");
  EXPECT_EQ(At(10, "orvex.data"), Hex("fire") + "|" + Hex("thrust:0.75") + "|" + Hex("say:hi"));
  EXPECT_EQ(At(18, "orvex.code"), "0x03");
  EXPECT_EQ(At(19, "orvex.code"), "0x02");
  EXPECT_EQ(At(19, "_ws.col.Info"), "Disconnect");
}

TEST_F(Dissector, DatagramsBothWays) {
  // The client's: header from the welcome, then one module record or a keep-alive.
  EXPECT_EQ(At(11, "orvex.lead"), "0x07");
  EXPECT_EQ(At(11, "orvex.version"), "1");
  EXPECT_EQ(At(11, "orvex.server_tag"), "0x0a0b");
  EXPECT_EQ(At(11, "orvex.player_id"), "1001");
  EXPECT_EQ(At(11, "orvex.code"), "0x7f");
  EXPECT_EQ(At(11, "orvex.module"), "DEMO_chat");
  EXPECT_EQ(At(11, "orvex.data"), Hex("aim:12"));
  EXPECT_EQ(At(15, "orvex.code"), "0x03");
  EXPECT_EQ(At(15, "orvex.player_id"), "1001");

  // The server's: magic, code, header, records up to the zero end marker.
  EXPECT_EQ(At(12, "orvex.magic"), "TOVRANE!");
  EXPECT_EQ(At(12, "orvex.module"), "DEMO_chat");
  EXPECT_EQ(At(13, "orvex.code"), "0x44");
  EXPECT_EQ(At(13, "orvex.state.time"), "12.5");
  EXPECT_EQ(At(13, "orvex.state.sequence"), "42");
  EXPECT_EQ(At(13, "orvex.state.divisor"), "1");
  EXPECT_EQ(At(13, "orvex.parent"), "SHIP010000000102030405060708");
  EXPECT_EQ(At(13, "orvex.state.records"), "2");
  EXPECT_EQ(At(13, "orvex.entity"), "TURR020000001112131415161718|DRON030000002122232425262728");
  EXPECT_EQ(At(13, "orvex.position.x"), "0|-7.25");
  EXPECT_EQ(At(13, "orvex.position.z"), "1.5|0.125");
  EXPECT_EQ(At(13, "orvex.orientation32.w"), "1|0.5");
  EXPECT_EQ(At(13, "orvex.orientation32.z"), "0|0.5");
  EXPECT_EQ(At(13, "orvex.end.word0"), "0x0000000000000000");
  EXPECT_EQ(At(14, "orvex.code"), "0x45");
  EXPECT_EQ(At(14, "orvex.state.records"), "1");
  EXPECT_EQ(At(14, "orvex.entity"), "SHIP010000000102030405060708");
  EXPECT_EQ(At(14, "orvex.velocity.x"), "1");
  EXPECT_EQ(At(14, "orvex.vector2.z"), "0.25");
  EXPECT_EQ(At(14, "orvex.end.word0"), "0x0000000000000000");
  EXPECT_EQ(At(14, "orvex.parent.word0"), "");  // physics has no parent id
}

TEST_F(Dissector, SegmentsAndMalformedInput) {
  // The update starts in frame 7 and ends in frame 8, which also carries two more messages.
  EXPECT_EQ(At(7, "orvex.code"), "");
  EXPECT_EQ(At(8, "orvex.code"), "0x42|0x46|0x41");

  // A transforms datagram cut inside its second record, and a hello whose token count is
  // over 64: both flagged, and nothing else is.
  std::vector<size_t> flagged;
  for (size_t frame = 1; frame < Decoded().size(); ++frame) {
    if (!At(frame, "orvex.malformed").empty()) flagged.push_back(frame);
  }
  EXPECT_EQ(flagged, (std::vector<size_t>{16, 34}));
  EXPECT_EQ(At(16, "_ws.expert.message"),
            "Truncated: the datagram ends inside record 2 (20 bytes missing)");
  EXPECT_EQ(At(16, "orvex.entity"), "TURR020000001112131415161718|SHIP010000000102030405060708");
  EXPECT_EQ(At(16, "orvex.end.word0"), "");
  EXPECT_EQ(At(34, "_ws.expert.message"), "Token of 1000 bytes exceeds the limit of 64");
  EXPECT_EQ(At(35, "orvex.refusal.reason").rfind("Malformed hello: ", 0), 0u);
}

TEST_F(Dissector, TwoPassesAgreeWithOne) {
  // The second pass revisits frames with the state the first one recorded.
  const std::vector<Row> twoPass = Rows("-2");
  ASSERT_EQ(twoPass.size(), Decoded().size());
  for (size_t frame = 1; frame < twoPass.size(); ++frame) {
    EXPECT_EQ(twoPass[frame], Decoded()[frame]) << "frame " << frame;
  }
}

TEST_F(Dissector, PortPreferenceMovesTheDissector) {
  EXPECT_NE(Tshark("-Y orvex -T fields -e frame.number"), "");
  EXPECT_EQ(Tshark("-o orvex.port:7778 -Y orvex -T fields -e frame.number"), "");
}

}  // namespace
