// The simulator is what other tests and the benchmarks measure against, so it is measured itself:
// what a packet waits, what a gateway answers, and that nothing of it stays behind. The delay line
// is tested in a time of the test's own; gateways and network are the programs themselves.

#include <curl/curl.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "simulator/DelayLine.h"
#include "simulator/FileDescriptor.h"
#include "simulator/Processes.h"
#include "simulator/Scene.h"

namespace simulator {
namespace {

using namespace std::chrono_literals;
using testing::AllOf;
using testing::Ge;
using testing::HasSubstr;
using testing::Lt;

constexpr int NotPermitted = 77;

// --- Packets ------------------------------------------------------------------------------------

/// A UDP packet between the client and a gateway; the port tells flows apart, the mark packets.
std::vector<unsigned char> makePacket(Direction direction, const char* gateway,
                                      unsigned char clientPort = 1, unsigned char mark = 0) {
  std::vector<unsigned char> packet(29, 0);
  packet[0] = 0x45;
  packet[9] = IPPROTO_UDP;
  const auto put = [&](std::size_t at, const char* address) {
    const auto parsed = IpAddress::parse(address);
    std::copy_n(parsed->bytes().begin() + 12, 4,
                packet.begin() + static_cast<std::vector<unsigned char>::difference_type>(at));
  };
  const bool there = direction == Direction::ToGateways;
  put(12, there ? "10.76.0.1" : gateway);
  put(16, there ? gateway : "10.76.0.1");
  packet[there ? 21 : 23] = clientPort;
  packet[28] = mark;
  return packet;
}

Scene sceneOf(const std::string& path) {
  Scene scene;
  scene.addLine(path);
  return scene;
}

/// Sends packets of one flow, a microsecond apart, and returns their marks in the order they leave.
std::vector<int> marksAfter(DelayLine& line, int count) {
  Clock::time_point now{};
  for (int i = 0; i < count; ++i) {
    line.accept(Direction::ToGateways,
                makePacket(Direction::ToGateways, "10.77.0.1", 1, static_cast<unsigned char>(i)),
                now += 1us);
  }
  std::vector<int> marks;
  while (const auto packet = line.takeDue(now + 1h)) marks.push_back(packet->bytes[28]);
  return marks;
}

TEST(DelayLine, APacketWaitsHalfTheRoundTripEachWay) {
  DelayLine line(sceneOf("path 10.77.0.1 rtt=20.5"), 1);
  const Clock::time_point now{};
  for (const Direction direction : {Direction::ToGateways, Direction::ToClients}) {
    line.accept(direction, makePacket(direction, "10.77.0.1"), now);
    EXPECT_EQ(line.nextDue(), now + 10250us);
    EXPECT_FALSE(line.takeDue(now + 10249us));
    const auto packet = line.takeDue(now + 10250us);
    ASSERT_TRUE(packet);
    EXPECT_EQ(packet->direction, direction);
    EXPECT_EQ(packet->bytes, makePacket(direction, "10.77.0.1"));
  }
}

TEST(DelayLine, AnAddressWithoutAPathHasTheDefaultOne) {
  Scene scene = sceneOf("path 10.77.0.1 rtt=20");
  scene.addLine("path default rtt=6");
  DelayLine line(scene, 1);
  line.accept(Direction::ToGateways, makePacket(Direction::ToGateways, "10.77.0.2"), {});
  EXPECT_EQ(line.nextDue(), Clock::time_point() + 3ms);
}

TEST(DelayLine, ANearerGatewaysPacketOvertakesAFartherOnes) {
  Scene scene = sceneOf("path 10.77.0.1 rtt=200");
  scene.addLine("path 10.77.0.2 rtt=2");
  DelayLine line(scene, 1);
  line.accept(Direction::ToGateways, makePacket(Direction::ToGateways, "10.77.0.1"), {});
  line.accept(Direction::ToGateways, makePacket(Direction::ToGateways, "10.77.0.2"), {});
  EXPECT_EQ(line.nextDue(), Clock::time_point() + 1ms);
}

TEST(DelayLine, JitterKeepsTheOrderOfOneFlow) {
  DelayLine line(sceneOf("path 10.77.0.1 rtt=10 jitter=10"), 1);
  const std::vector<int> marks = marksAfter(line, 100);
  ASSERT_EQ(marks.size(), 100u);
  EXPECT_TRUE(std::is_sorted(marks.begin(), marks.end()));
}

TEST(DelayLine, JitterChangesTheOrderWhereThePathReorders) {
  DelayLine line(sceneOf("path 10.77.0.1 rtt=10 jitter=10 reorder"), 1);
  const std::vector<int> marks = marksAfter(line, 100);
  ASSERT_EQ(marks.size(), 100u);
  EXPECT_FALSE(std::is_sorted(marks.begin(), marks.end()));
}

TEST(DelayLine, JitterAddsItsMeanToTheRoundTripAndNeverShortensIt) {
  DelayLine line(sceneOf("path 10.77.0.1 rtt=10 jitter=4"), 7);
  constexpr int Packets = 10'000;
  std::chrono::nanoseconds sum{0};
  for (int i = 0; i < Packets; ++i) {
    // Far enough apart that none waits for the one before it.
    const Clock::time_point now{std::chrono::seconds(i)};
    line.accept(Direction::ToGateways, makePacket(Direction::ToGateways, "10.77.0.1"), now);
    ASSERT_GE(*line.nextDue(), now + 5ms);
    sum += *line.nextDue() - now;
    ASSERT_TRUE(line.takeDue(*line.nextDue()));
  }
  // 5 ms and half the jitter; the mean of so many deviates by 0.02 ms.
  EXPECT_NEAR(static_cast<double>((sum / Packets).count()) / 1e6, 7.0, 0.1);
}

TEST(DelayLine, LossIsThatOfAPacketAndItsAnswerTogether) {
  DelayLine line(sceneOf("path 10.77.0.1 loss=19"), 7);
  constexpr int Packets = 10'000;
  int answered = 0;
  for (int i = 0; i < Packets; ++i) {
    line.accept(Direction::ToGateways, makePacket(Direction::ToGateways, "10.77.0.1"), {});
    if (!line.takeDue({})) continue;
    line.accept(Direction::ToClients, makePacket(Direction::ToClients, "10.77.0.1"), {});
    answered += line.takeDue({}) ? 1 : 0;
  }
  // The standard deviation is 39.
  EXPECT_NEAR(answered, 8100, 200);
  EXPECT_EQ(line.GetStatistics().lost, static_cast<unsigned int>(Packets - answered));
}

TEST(DelayLine, AllIsLostOnAPathThatLosesAHundredPerCent) {
  DelayLine line(sceneOf("path 10.77.0.1 loss=100"), 1);
  for (int i = 0; i < 1000; ++i) {
    line.accept(Direction::ToGateways, makePacket(Direction::ToGateways, "10.77.0.1"), {});
  }
  EXPECT_FALSE(line.nextDue());
}

TEST(DelayLine, OneSeedGivesOneFateWhateverElseTravels) {
  const auto fate = [](std::uint64_t seed, bool othersTravel) {
    Scene scene = sceneOf("path 10.77.0.1 rtt=10 jitter=10 loss=50");
    scene.addLine("path 10.77.0.2 loss=50");
    DelayLine line(scene, seed);
    std::vector<std::chrono::nanoseconds> dues;
    for (int i = 0; i < 200; ++i) {
      const Clock::time_point now{std::chrono::seconds(i)};
      if (othersTravel) {
        line.accept(Direction::ToGateways, makePacket(Direction::ToGateways, "10.77.0.2"), now);
        line.takeDue(now);
      }
      line.accept(Direction::ToGateways, makePacket(Direction::ToGateways, "10.77.0.1"), now);
      dues.push_back(line.nextDue() ? *line.nextDue() - now : -1ns);
      if (line.nextDue()) line.takeDue(*line.nextDue());
    }
    return dues;
  };
  EXPECT_EQ(fate(5, false), fate(5, false));
  EXPECT_EQ(fate(5, false), fate(5, true));
  EXPECT_NE(fate(5, false), fate(6, false));
}

TEST(DelayLine, WhatIsNotIpOrIsCutShortIsDropped) {
  DelayLine line(sceneOf("path default rtt=0"), 1);
  const std::vector<std::vector<unsigned char>> packets = {{},
                                                           {0x45},
                                                           std::vector<unsigned char>(19, 0x45),
                                                           std::vector<unsigned char>(20, 0x41),
                                                           std::vector<unsigned char>(39, 0x60),
                                                           std::vector<unsigned char>(60, 0x00)};
  for (const auto& packet : packets) line.accept(Direction::ToGateways, packet, {});
  EXPECT_FALSE(line.nextDue());
  EXPECT_EQ(line.GetStatistics().dropped, packets.size());
}

TEST(DelayLine, WhatItHoldsIsBounded) {
  DelayLine line(sceneOf("path default rtt=1000"), 1);
  for (int i = 0; i < 70'000; ++i) {
    line.accept(Direction::ToGateways, makePacket(Direction::ToGateways, "10.77.0.1"), {});
  }
  EXPECT_EQ(line.GetStatistics().dropped, 70'000u - 65'536u);
}

// --- Scenes -------------------------------------------------------------------------------------

TEST(Scene, ALineMayHaveBlanksOrCommasAndAComment) {
  Scene scene;
  scene.addLine("path 10.77.0.1,rtt=20,loss=2.5  # to Amsterdam");
  scene.addLine("gateway [fd77::1]:8443 delay=1.5\tbehaviour=silent\r");
  scene.addLine("   # nothing else");
  const Path& path = scene.paths.at(*IpAddress::parse("10.77.0.1"));
  EXPECT_EQ(path.roundTrip, 20ms);
  EXPECT_DOUBLE_EQ(path.loss, 0.025);
  ASSERT_EQ(scene.gateways.size(), 1u);
  EXPECT_EQ(scene.gateways[0].address.text(), "fd77::1");
  EXPECT_EQ(scene.gateways[0].port, 8443);
  EXPECT_EQ(scene.gateways[0].delay, 1500us);
  EXPECT_EQ(scene.gateways[0].behaviour, "silent");
}

class WrongLine : public testing::TestWithParam<const char*> {};

TEST_P(WrongLine, IsRefused) {
  Scene scene;
  EXPECT_THROW(scene.addLine(GetParam()), SceneError);
}

INSTANTIATE_TEST_SUITE_P(Scene, WrongLine,
                         testing::Values("answer a", "answer a x", "answer a loop x",
                                         "road 10.77.0.1", "path", "path 10.77.0",
                                         "path 10.77.0.1 rtt",
                                         "path default rtt=", "path default rtt=-1",
                                         "path default rtt=nan", "path default rtt=60001",
                                         "path default loss=101", "path default loss=3%",
                                         "path default speed=3", "gateway 10.77.0.1",
                                         "gateway 10.77.0.1:", "gateway 10.77.0.1:65536",
                                         "gateway fd77::1:443", "gateway 10.77.0.1:443 delay=x",
                                         "name a", "name a b", "name a;b 10.77.0.1", "resolver x"));

TEST(Scene, ANameServersAnswerHasAMannerOrAddressesOrBoth) {
  Scene scene;
  scene.addLine("answer A.example 10.77.0.1 fd77::1");
  scene.addLine("answer b.example silence");
  scene.addLine("answer c.example odd-name 10.77.0.1");
  EXPECT_EQ(scene.answers.at("a.example").manner, NameAnswer::Manner::Addresses);
  EXPECT_EQ(scene.answers.at("a.example").addresses.size(), 2U);
  EXPECT_EQ(scene.answers.at("b.example").manner, NameAnswer::Manner::Silence);
  EXPECT_EQ(scene.answers.at("c.example").manner, NameAnswer::Manner::OddName);
  EXPECT_EQ(scene.answers.at("c.example").addresses.size(), 1U);
}

TEST(Scene, AWrongLineOfAFileIsReportedWithFileAndLine) {
  const std::string file = testing::TempDir() + "wrong-scene";
  std::ofstream(file) << "path default rtt=1\n\nroad 10.77.0.1\n";
  Scene scene;
  try {
    scene.addFile(file);
    FAIL() << "accepted";
  } catch (const SceneError& error) {
    EXPECT_THAT(error.what(), HasSubstr(file + ":3: 'road'"));
  }
  std::filesystem::remove(file);
}

// --- Programs -----------------------------------------------------------------------------------

/// A program under test, with what it writes to both its outputs. It is killed at the end.
class Program {
 public:
  explicit Program(std::vector<std::string> arguments) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) std::abort();
    m_output = FileDescriptor(ends[0]);
    const FileDescriptor writeEnd(ends[1]);
    Launch launch;
    launch.arguments = std::move(arguments);
    launch.standardOutput = launch.standardError = writeEnd.get();
    m_pid = start(launch);
  }
  ~Program() {
    if (m_pid == 0) return;
    kill(m_pid, SIGKILL);
    waitpid(m_pid, nullptr, 0);
  }

  /// Reads until the text has come, or the output has ended. @return all that has come.
  const std::string& readUntil(const std::string& text) {
    char buffer[4096];
    while (text.empty() || m_text.find(text) == std::string::npos) {
      pollfd waiting{m_output.get(), POLLIN, 0};
      constexpr int PatienceMs = 30'000;
      if (poll(&waiting, 1, PatienceMs) <= 0) break;
      const ssize_t count = read(m_output.get(), buffer, sizeof buffer);
      if (count <= 0) break;
      m_text.append(buffer, static_cast<std::size_t>(count));
    }
    return m_text;
  }

  /// @return its exit status as a shell has it.
  int waitForEnd() {
    int status = 0;
    waitpid(std::exchange(m_pid, 0), &status, 0);
    return exitStatus(status);
  }

  pid_t pid() const { return m_pid; }

 private:
  FileDescriptor m_output;
  pid_t m_pid = 0;
  std::string m_text;
};

bool isAlive(pid_t pid) { return kill(pid, 0) == 0 || errno != ESRCH; }

/// Waits for a process that is not ours to be gone.
bool endsSoon(pid_t pid) {
  const auto patienceEnds = std::chrono::steady_clock::now() + 10s;
  while (isAlive(pid) && std::chrono::steady_clock::now() < patienceEnds) {
    std::this_thread::sleep_for(10ms);
  }
  return !isAlive(pid);
}

struct Answer {
  CURLcode result = CURLE_OK;
  long status = 0;
  double secondsToFirstByte = 0;
  double secondsToTls = 0;
  std::string body;
};

Answer fetch(const std::string& url, const std::string& authority,
             std::chrono::milliseconds timeout) {
  const std::unique_ptr<CURL, void (*)(CURL*)> curl(curl_easy_init(), curl_easy_cleanup);
  Answer answer;
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_PROXY, "");
  curl_easy_setopt(curl.get(), CURLOPT_CAINFO, authority.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, static_cast<long>(timeout.count()));
  const auto append = +[](char* data, std::size_t size, std::size_t count, void* body) {
    static_cast<std::string*>(body)->append(data, size * count);
    return size * count;
  };
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, append);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &answer.body);
  answer.result = curl_easy_perform(curl.get());
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &answer.status);
  curl_easy_getinfo(curl.get(), CURLINFO_STARTTRANSFER_TIME, &answer.secondsToFirstByte);
  curl_easy_getinfo(curl.get(), CURLINFO_APPCONNECT_TIME, &answer.secondsToTls);
  return answer;
}

/// One gateway of `ahs-gateways` on the loopback interface.
class Gateways : public testing::Test {
 protected:
  ~Gateways() override { std::filesystem::remove(m_authority); }

  /// @return where it listens, ADDRESS:PORT.
  std::string play(const std::string& settings, const std::string& address = "127.0.77.1") {
    m_program = std::make_unique<Program>(std::vector<std::string>{
        AHS_GATEWAYS, "--gateway", address + ":0," + settings, "--write-ca", m_authority});
    std::istringstream output(m_program->readUntil("ready\n"));
    std::string word;
    std::string where;
    output >> word >> where;
    EXPECT_EQ(word, "gateway");
    return where;
  }
  Answer get(const std::string& url) const { return fetch(url, m_authority, 30s); }

  /// From one that does not answer.
  Answer GetInVain(const std::string& url) const { return fetch(url, m_authority, 1s); }

  const std::string m_authority =
      testing::TempDir() + "authority-" + std::to_string(getpid()) + ".pem";
  std::unique_ptr<Program> m_program;
};

TEST_F(Gateways, ANormalOneAnswersOverTlsWithATrustedCertificate) {
  const Answer answer = get("https://" + play("behaviour=normal") + "/");
  EXPECT_EQ(answer.result, CURLE_OK);
  EXPECT_EQ(answer.status, 200);
}

TEST_F(Gateways, ANormalOneListensOnIpVersion6Too) {
  const Answer answer = get("https://" + play("behaviour=normal", "[::1]") + "/");
  EXPECT_EQ(answer.result, CURLE_OK);
  EXPECT_EQ(answer.status, 200);
}

TEST_F(Gateways, ANormalOneTellsAPlainRequestThatThisIsATlsPort) {
  const Answer answer = get("http://" + play("behaviour=normal") + "/");
  EXPECT_EQ(answer.result, CURLE_OK);
  EXPECT_EQ(answer.status, 400);
  EXPECT_THAT(answer.body, HasSubstr("The plain HTTP request was sent to HTTPS port"));
}

TEST_F(Gateways, TheDelayComesBeforeTheAnswerAndAfterTheHandshake) {
  const std::string where = play("delay=120");
  EXPECT_GE(get("http://" + where + "/").secondsToFirstByte, 0.120);
  const Answer secure = get("https://" + where + "/");
  EXPECT_EQ(secure.status, 200);
  EXPECT_GE(secure.secondsToFirstByte - secure.secondsToTls, 0.120);
}

TEST_F(Gateways, ASilentOneSaysNothing) {
  const std::string where = play("behaviour=silent");
  EXPECT_EQ(GetInVain("http://" + where + "/").result, CURLE_OPERATION_TIMEDOUT);
  EXPECT_EQ(GetInVain("https://" + where + "/").result, CURLE_OPERATION_TIMEDOUT);
}

TEST_F(Gateways, OneThatRefusesDoesNotListen) {
  EXPECT_EQ(get("http://" + play("behaviour=refuse") + "/").result, CURLE_COULDNT_CONNECT);
}

TEST_F(Gateways, OneThatDropsNeitherTakesConnectionsNorRefusesThem) {
  EXPECT_EQ(GetInVain("http://" + play("behaviour=drop") + "/").result, CURLE_OPERATION_TIMEDOUT);
}

class Bombs : public Gateways, public testing::WithParamInterface<const char*> {};

TEST_P(Bombs, ExpandWithoutEnd) {
  constexpr std::size_t FarBeyondWhatIsSent = 256UL * 1024 * 1024;
  const std::unique_ptr<CURL, void (*)(CURL*)> curl(curl_easy_init(), curl_easy_cleanup);
  const std::string url = "http://" + play(std::string("behaviour=") + GetParam()) + "/";
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_PROXY, "");
  curl_easy_setopt(curl.get(), CURLOPT_ACCEPT_ENCODING, "");
  std::size_t expanded = 0;
  const auto add = +[](char*, std::size_t size, std::size_t count, void* sum) {
    auto& bytes = *static_cast<std::size_t*>(sum);
    bytes += size * count;
    return bytes < FarBeyondWhatIsSent ? size * count : 0;
  };
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, add);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &expanded);
  EXPECT_EQ(curl_easy_perform(curl.get()), CURLE_WRITE_ERROR);
  curl_off_t received = 0;
  curl_easy_getinfo(curl.get(), CURLINFO_SIZE_DOWNLOAD_T, &received);
  EXPECT_GE(expanded, FarBeyondWhatIsSent);
  EXPECT_LT(static_cast<std::size_t>(received), expanded / 100);
}

INSTANTIATE_TEST_SUITE_P(That, Bombs, testing::Values("bomb-gzip", "bomb-deflate", "bomb-br"),
                         [](const auto& param) {
                           return std::string(param.param).substr(std::strlen("bomb-"));
                         });

TEST_F(Gateways, OneThatClosesSaysNothingBeforeItDoes) {
  const std::string where = play("behaviour=closes");
  EXPECT_EQ(get("http://" + where + "/").result, CURLE_GOT_NOTHING);
  EXPECT_EQ(get("https://" + where + "/").result, CURLE_SSL_CONNECT_ERROR);
}

TEST_F(Gateways, OneThatResetsBreaksTheConnection) {
  EXPECT_EQ(get("http://" + play("behaviour=resets") + "/").result, CURLE_RECV_ERROR);
}

TEST_F(Gateways, OneThatTalksGarbageSpeaksNeitherHttpNorTls) {
  const std::string where = play("behaviour=garbage");
  EXPECT_EQ(get("http://" + where + "/").result, CURLE_UNSUPPORTED_PROTOCOL);
  EXPECT_EQ(get("https://" + where + "/").result, CURLE_SSL_CONNECT_ERROR);
}

TEST_F(Gateways, OneThatDripsIsNotDoneInTime) {
  const Answer answer = GetInVain("http://" + play("behaviour=drip") + "/");
  EXPECT_EQ(answer.result, CURLE_OPERATION_TIMEDOUT);
}

TEST_F(Gateways, AnUnknownBehaviourIsAUsageError) {
  Program program({AHS_GATEWAYS, "--gateway", "127.0.77.1:0,behaviour=polite"});
  EXPECT_THAT(program.readUntil(""), HasSubstr("'polite'"));
  EXPECT_EQ(program.waitForEnd(), 2);
}

TEST_F(Gateways, TheyEndWhenAsked) {
  play("behaviour=normal");
  kill(m_program->pid(), SIGTERM);
  EXPECT_EQ(m_program->waitForEnd(), 0);
}

TEST_F(Gateways, TheyEndWithTheOneWhoStartedThem) {
  // The shell stays their parent, and dies without a chance to end them.
  Program shell({"/bin/sh", "-c", AHS_GATEWAYS " --gateway 127.0.77.1:0 & echo pid $! end; wait"});
  shell.readUntil("ready\n");
  const std::string& output = shell.readUntil(" end\n");
  const pid_t gateways = std::stoi(output.substr(output.find("pid ") + 4));
  ASSERT_TRUE(isAlive(gateways));
  kill(shell.pid(), SIGKILL);
  shell.waitForEnd();
  EXPECT_TRUE(endsSoon(gateways));
}

/// Programs in a network of their own; skipped where there is none to be had.
class Wan : public testing::Test {
 protected:
  void SetUp() override {
    Program program({AHS_WAN, "--", "true"});
    const std::string output = program.readUntil("");
    const int status = program.waitForEnd();
    if (status == NotPermitted) GTEST_SKIP() << output;
    ASSERT_EQ(status, 0) << output;
  }
};

/// The smallest of the times that `fping -C` printed for an address.
double smallestOf(const std::string& output, const std::string& address) {
  const std::size_t begin = output.find(address + " ");
  if (begin == std::string::npos) return -1;
  std::istringstream line(output.substr(begin, output.find('\n', begin) - begin));
  std::string word;
  line >> word >> word;
  double smallest = 1e9;
  while (line >> word) {
    // A packet that came too late is a dash.
    if (word != "-") smallest = std::min(smallest, std::stod(word));
  }
  return smallest;
}

TEST_F(Wan, PingsTakeAsLongAsConfigured) {
  if (std::system("command -v fping >/dev/null") != 0) GTEST_SKIP() << "fping is not installed";
  Program program({AHS_WAN,
                   "--path",
                   "10.77.0.1,rtt=5",
                   "--path",
                   "10.77.0.2,rtt=40.5",
                   "--path",
                   "10.77.0.3,rtt=200",
                   "--path",
                   "fd77::1,rtt=20",
                   "--",
                   "fping",
                   "-q",
                   "-C",
                   "10",
                   "-t",
                   "1000",
                   "-p",
                   "100",
                   "10.77.0.1",
                   "10.77.0.2",
                   "10.77.0.3",
                   "fd77::1"});
  const std::string output = program.readUntil("");
  ASSERT_EQ(program.waitForEnd(), 0) << output;
  // The smallest, so that a busy machine is not taken for a slow network.
  const auto isAbout = [](double rtt) { return AllOf(Ge(rtt - 0.1), Lt(rtt + 4)); };
  EXPECT_THAT(smallestOf(output, "10.77.0.1"), isAbout(5)) << output;
  EXPECT_THAT(smallestOf(output, "10.77.0.2"), isAbout(40.5)) << output;
  EXPECT_THAT(smallestOf(output, "10.77.0.3"), isAbout(200)) << output;
  EXPECT_THAT(smallestOf(output, "fd77::1"), isAbout(20)) << output;
}

TEST_F(Wan, NothingComesBackOverAPathThatLosesAll) {
  if (std::system("command -v fping >/dev/null") != 0) GTEST_SKIP() << "fping is not installed";
  Program program({AHS_WAN, "--path", "10.77.0.1,loss=100", "--", "fping", "-q", "-C", "2", "-p",
                   "100", "-t", "100", "10.77.0.1"});
  EXPECT_THAT(program.readUntil(""), HasSubstr("10.77.0.1 : - -"));
  EXPECT_EQ(program.waitForEnd(), 1);
}

TEST_F(Wan, ServersAreReadyOnTheOtherSideBeforeTheCommandRuns) {
  if (std::system("command -v curl >/dev/null") != 0) GTEST_SKIP() << "curl is not installed";
  Program program({AHS_WAN, "--path", "10.77.0.1,rtt=10", "--name", "one.example,10.77.0.1",
                   "--servers", AHS_GATEWAYS " --gateway 10.77.0.1:443", "--", "curl", "-sk", "-o",
                   "/dev/null", "-w", "%{http_code}", "https://one.example/"});
  EXPECT_EQ(program.readUntil(""), "200");
  EXPECT_EQ(program.waitForEnd(), 0);
}

TEST_F(Wan, NamesThatTheSceneDoesNotHaveAreUnknown) {
  Program program({AHS_WAN, "--name", "one.example,10.77.0.1", "--", "sh", "-c",
                   "getent ahostsv4 one.example | head -1; getent hosts two.example; echo $?"});
  const std::string output = program.readUntil("");
  EXPECT_EQ(program.waitForEnd(), 0);
  EXPECT_THAT(output, testing::MatchesRegex("10\\.77\\.0\\.1 +STREAM one\\.example\n2\n"));
}

TEST_F(Wan, TheCommandsExitStatusIsItsOwn) {
  EXPECT_EQ(Program({AHS_WAN, "--", "sh", "-c", "exit 7"}).waitForEnd(), 7);
  EXPECT_EQ(Program({AHS_WAN, "--", "sh", "-c", "kill -9 $$"}).waitForEnd(), 128 + SIGKILL);
  EXPECT_EQ(Program({AHS_WAN, "--", "/no/such/command"}).waitForEnd(), 127);
}

TEST_F(Wan, ServersThatFailAreAFailureOfItsOwn) {
  Program program({AHS_WAN, "--servers", "false", "--", "echo", "never"});
  EXPECT_EQ(program.readUntil(""), "ahs-wan: the servers ended before they were ready\n");
  EXPECT_EQ(program.waitForEnd(), 125);
}

TEST_F(Wan, AnAddressOutOfItsRangeIsAUsageError) {
  EXPECT_EQ(Program({AHS_WAN, "--path", "10.0.0.1", "--", "true"}).waitForEnd(), 2);
}

TEST_F(Wan, NothingThatItStartedOutlivesIt) {
  const std::string told = testing::TempDir() + "orphan-told-" + std::to_string(getpid());
  // Servers, one that ignores being asked, and one that has lost its parent.
  Program program({AHS_WAN, "--servers", "sh -c 'echo $$ >&2; echo ready; exec sleep 600'", "--",
                   "sh", "-c",
                   "(trap '' TERM; sleep 600 & echo $!); (sh -c 'echo $$; : >" + told +
                       "; exec sleep 600' &); until test -e " + told + "; do sleep 0.01; done"});
  std::istringstream output(program.readUntil(""));
  EXPECT_EQ(program.waitForEnd(), 0);
  int started = 0;
  for (pid_t pid = 0; output >> pid; ++started) EXPECT_TRUE(endsSoon(pid)) << pid;
  EXPECT_EQ(started, 3);
  std::filesystem::remove(told);
}

TEST_F(Wan, ItPassesOnTheRequestToEnd) {
  Program program({AHS_WAN, "--", "sh", "-c",
                   "trap 'echo asked; exit 3' TERM; echo up; while :; do sleep 0.01; done"});
  program.readUntil("up\n");
  kill(program.pid(), SIGTERM);
  EXPECT_EQ(program.readUntil(""), "up\nasked\n");
  EXPECT_EQ(program.waitForEnd(), 3);
}

}  // namespace
}  // namespace simulator
