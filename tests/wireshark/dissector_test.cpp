// The Wireshark dissector, run by tshark over make_capture's capture of the real client.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "ChildProcess.h"

namespace {

using namespace testlib;

// "frame field value": what tshark shows for the field in that frame, repeated values
// joined by '|'. The values come from the scenario make_capture plays and from the protocol.
constexpr const char* kExpected = R"(4 _ws.col.Info Hello token="pilot-token" with password
5 orvex.welcome.mod CORE_ship|DEMO_chat|
5 orvex.code 0x04|0x05|0x40|0x40
5 orvex.entity SHIP010000000102030405060708|TURR020000001112131415161718
6 orvex.data 68656c6c6f2066726f6d2070696c6f74
8 orvex.code 0x42|0x46|0x41
10 orvex.data.length 4|11|6
13 orvex.state.sequence 42
16 _ws.expert.message Truncated: the datagram ends inside record 2 (20 bytes missing)
19 _ws.col.Info Disconnect
27 orvex.refusal.reason Wrong password
34 _ws.expert.message Token of 1000 bytes exceeds the limit of 64
40 _ws.expert.message Sequence below the newest (42): the client drops it as stale
)";

// tshark's output for `args`, with a home of its own so that no personal preference or
// plugin (such as an installed copy of this dissector) takes part.
std::string Tshark(const ScratchDir& dir, std::vector<std::string> args) {
  args.insert(
      args.begin(),
      {"-c", "HOME=\"$0\" XDG_CONFIG_HOME=\"$0\" WIRESHARK_CONFIG_DIR=\"$0\" exec tshark \"$@\"",
       dir.Path().string(), "-n", "-X", "lua_script:" DISSECTOR_PATH, "-r"});
  ChildProcess tshark("/bin/sh", args, dir, "tshark");
  EXPECT_EQ(tshark.Wait(), 0) << tshark.Stderr();
  EXPECT_EQ(tshark.Stderr().find("Lua"), std::string::npos) << tshark.Stderr();
  return tshark.Stdout();
}

TEST(Dissector, ShowsEveryFieldAsTheTableSaysOnAnyPort) {
  if (std::system("command -v tshark >/dev/null 2>&1") != 0) GTEST_SKIP() << "no tshark";
  ScratchDir dir;
  for (const std::string port : {"7777", "9123"}) {
    ChildProcess make(MAKE_CAPTURE_PATH, {"--port", port, dir / (port + ".pcapng")}, dir);
    ASSERT_EQ(make.Wait(), 0) << make.Stderr();
  }
  const std::string capture = dir / "7777.pcapng";
  std::vector<std::string> fields = {
      capture, "-T", "fields", "-E", "separator=/t", "-E", "occurrence=a", "-E", "aggregator=|"};
  std::vector<std::pair<size_t, std::string>> table;  // frame, field
  for (const std::string& line : Lines(kExpected)) {
    auto& [frame, field] = table.emplace_back();
    std::istringstream(line) >> frame >> field;
    if (std::find(fields.begin(), fields.end(), field) == fields.end())
      fields.insert(fields.end(), {"-e", field});
  }
  const std::vector<std::string> frames = Lines(Tshark(dir, fields));
  // The cells of frame `frame`, by the field's place in the command line.
  auto value = [&](size_t frame, const std::string& field) {
    std::istringstream cells(frame - 1 < frames.size() ? frames[frame - 1] : "");
    std::string cell;
    for (size_t i = 10; i < fields.size() && std::getline(cells, cell, '\t'); i += 2) {
      if (fields[i] == field) return cell;
    }
    return std::string("<none>");
  };
  std::string shown;
  for (const auto& [frame, field] : table) {
    shown += std::to_string(frame) + " " + field + " " + value(frame, field) + "\n";
  }
  EXPECT_EQ(shown, kExpected);
  // The second pass revisits frames with the state the first one recorded.
  fields.push_back("-2");
  EXPECT_EQ(Lines(Tshark(dir, fields)), frames);

  // The same one-line summaries whichever way the dissector is found; the server's port
  // only shows in frames it does not take.
  auto summary = [&](std::vector<std::string> args) {
    std::string text = Tshark(dir, args);
    for (const char* port : {"7777", "9123"}) {
      for (size_t at = text.find(port); at != std::string::npos; at = text.find(port, at))
        text.replace(at, 4, "PORT");
    }
    return text;
  };
  const std::string expected = summary({capture});
  const struct {
    const char* name;
    std::vector<std::string> args;
  } ways[] = {
      {"heuristics", {dir / "9123.pcapng"}},
      {"Decode As",
       {dir / "9123.pcapng", "-o", "orvex.port:1", "-d", "tcp.port==9123,orvex", "-d",
        "udp.port==9123,orvex"}},
  };
  for (const auto& way : ways) EXPECT_EQ(summary(way.args), expected) << way.name;
}

}  // namespace
