// The kernel switch simulator through a real socket, driven by a minimal
// client that speaks the wire format directly: the kernel side of each
// command, results that outgrow the offered capacity, concurrent clients,
// malformed requests and planned faults.
#include <dvshyp.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include "kernel/wire_protocol.h"
#include "sim/server.h"
#include "sim/simulator.h"
#include "tests/support/le_bytes.h"
#include "tests/support/prop_lists.h"

using namespace dvs;
using Props = std::vector<std::pair<std::string, std::string>>;

namespace {

using testsupport::Decode;
using testsupport::Names;
using testsupport::U32;

// A list as the simulator's clients send it: flag 0x20, blob version 7.
std::string Serialize(const Props &props) {
   return testsupport::Serialize(props, 0x20, 7);
}

DVSHYPCmd Rec(const std::string &sw = "", const std::string &port = "",
              const std::string &name = "", const std::string &text = "") {
   DVSHYPCmd rec{};
   sw.copy(rec.switchName, sizeof rec.switchName - 1);
   port.copy(rec.portId, sizeof rec.portId - 1);
   name.copy(rec.name, sizeof rec.name - 1);
   text.copy(rec.cmdText, sizeof rec.cmdText - 1);
   rec.status = STATUS_FAILURE;
   return rec;
}

sockaddr_un Address(const std::string &path) {
   sockaddr_un addr{};
   addr.sun_family = AF_UNIX;
   path.copy(addr.sun_path, sizeof addr.sun_path - 1);
   return addr;
}

struct Answer {
   bool answered = false;  // false: the server closed the connection instead
   uint32_t result = 0, status = 0;
   DVSHYPCmd rec{};
   std::string out;
};

// One connection, as the library keeps one for its device.
class Client {
  public:
   explicit Client(const std::string &path) : fd_(socket(AF_UNIX, SOCK_STREAM, 0)) {
      const sockaddr_un addr = Address(path);
      connect(fd_, reinterpret_cast<const sockaddr *>(&addr), sizeof addr);
   }
   ~Client() { close(fd_); }
   bool Send(const std::string &bytes) {
      return send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size());
   }
   bool Recv(void *buf, size_t len) {
      return len == 0 || recv(fd_, buf, len, MSG_WAITALL) == ssize_t(len);
   }
   // One exchange, offering `cap` bytes for a result.
   Answer Call(uint32_t code, DVSHYPCmd rec, const std::string &in = "", uint32_t cap = 32768) {
      if (wire::IsExec(code))
         rec.cmdInLen = in.size(), rec.cmdOutLen = cap;
      else
         rec.dataLen = wire::SendsData(code) ? in.size() : cap;
      const wire::WireRequest req{wire::kRequestMagic, code, uint32_t(in.size())};
      wire::WireResponse resp{};
      Answer a;
      if (!Send(std::string(reinterpret_cast<const char *>(&req), sizeof req) +
                std::string(reinterpret_cast<const char *>(&rec), sizeof rec) + in) ||
          !Recv(&resp, sizeof resp) || !Recv(&a.rec, sizeof a.rec))
         return a;
      a.out.assign(resp.outLen, '\0');
      a.answered = resp.magic == wire::kResponseMagic && Recv(a.out.data(), resp.outLen);
      a.result = resp.result;
      a.status = a.rec.status;
      // The ioctl fails exactly when the command did.
      EXPECT_EQ(a.result != 0, a.status != STATUS_OK) << sim::CommandName(code);
      return a;
   }

  private:
   int fd_;
};

class SimTest : public testing::Test {
  protected:
   void SetUp() override {
      std::string error;
      ASSERT_TRUE(server_.Start(path_, &error)) << error;
      client_ = std::make_unique<Client>(path_);
   }

   Answer Call(uint32_t code, DVSHYPCmd rec, const std::string &in = "", uint32_t cap = 32768) {
      Answer a = client_->Call(code, rec, in, cap);
      EXPECT_TRUE(a.answered) << sim::CommandName(code);
      return a;
   }
   uint32_t Status(uint32_t code, DVSHYPCmd rec, const std::string &in = "") {
      return Call(code, rec, in).status;
   }
   uint32_t AddSwitch(const std::string &id, uint32_t maxPorts = 0, uint32_t version = 7) {
      DVSHYPCmd rec = Rec(id, "", "myclass");
      rec.maxPorts = maxPorts;
      rec.version = version;
      return Status(DVSHYP_CMD_SWITCH_ADD, rec);
   }
   uint32_t AddPort(const std::string &sw, const std::string &port, Props data = {},
                    uint32_t type = 0) {
      if (type != 0)
         data.emplace_back(DVS_PROP_PORT_TYPE, U32(type));
      return Status(DVSHYP_CMD_PORT_ADD, Rec(sw, port), Serialize(data));
   }
   std::string Exec(const std::string &sw, const std::string &text) {
      return Call(DVSHYP_CMD_EXEC, Rec(sw, "", "", text)).out;
   }
   // As the library reads a result: once more with the length asked for.
   std::string StateGet() {
      const Answer a = Call(DVSHYP_CMD_STATE_GET, Rec());
      return a.status == STATUS_OK ? a.out
                                   : Call(DVSHYP_CMD_STATE_GET, Rec(), "", a.rec.dataLen).out;
   }

   const std::string path_ = "/tmp/dvs-sim-test-" + std::to_string(getpid()) + ".sock";
   sim::Simulator sim_;
   sim::Server server_{sim_};
   std::unique_ptr<Client> client_;
};

TEST_F(SimTest, SwitchesAndTheirProperties) {
   EXPECT_EQ(AddSwitch("s1"), STATUS_OK);
   EXPECT_EQ(AddSwitch("s1"), STATUS_EXISTS);
   EXPECT_EQ(AddSwitch("s2", 0, 3), STATUS_NOT_SUPPORTED);
   EXPECT_EQ(Status(DVSHYP_CMD_SWITCH_ASSOCIATE, Rec("s1")), STATUS_OK);

   EXPECT_EQ(Status(DVSHYP_CMD_GLOBAL_PROP_SET, Rec("s1", "", "mtu"), "9000"), STATUS_OK);
   EXPECT_EQ(Status(DVSHYP_CMD_HOST_PROP_SET, Rec("s1", "", "mtu"), "1500"), STATUS_OK);
   EXPECT_EQ(Call(DVSHYP_CMD_GLOBAL_PROP_GET, Rec("s1", "", "mtu")).out, "9000");
   EXPECT_EQ(Call(DVSHYP_CMD_HOST_PROP_GET, Rec("s1", "", "mtu")).out, "1500");
   EXPECT_EQ(Status(DVSHYP_CMD_GLOBAL_PROP_GET, Rec("s1", "", "nope")), STATUS_NOT_FOUND);
   EXPECT_EQ(Status(DVSHYP_CMD_GLOBAL_PROP_CLEAR, Rec("s1", "", "mtu")), STATUS_OK);
   EXPECT_EQ(Status(DVSHYP_CMD_GLOBAL_PROP_CLEAR, Rec("s1", "", "mtu")), STATUS_NOT_FOUND);
   EXPECT_EQ(Exec("s1", "summary"),
             "s1 class=myclass version=7 maxPorts=0 ports=0 associated=yes global=0 host=1\n");

   EXPECT_EQ(Status(DVSHYP_CMD_SWITCH_REMOVE, Rec("s1")), STATUS_OK);
   EXPECT_EQ(Status(DVSHYP_CMD_HOST_PROP_GET, Rec("s1", "", "mtu")), STATUS_NOT_FOUND);
}

TEST_F(SimTest, PortsKeepTheirTypes) {
   ASSERT_EQ(AddSwitch("s1", 3), STATUS_OK);
   EXPECT_EQ(AddPort("s1", "p1", {{"alias", "a"}}), STATUS_OK);
   EXPECT_EQ(AddPort("s1", "p1"), STATUS_EXISTS);
   EXPECT_EQ(AddPort("s1", "p1", {{"alias", "b"}}, DVS_PORT_SHADOW), STATUS_OK);
   EXPECT_EQ(Status(DVSHYP_CMD_PORT_ADD, Rec("s1", "p9"), "junk junk junk junk"), STATUS_BAD_PARAM);
   EXPECT_EQ(AddPort("s1", "p2"), STATUS_OK);
   EXPECT_EQ(AddPort("s1", "p3"), STATUS_LIMIT_EXCEEDED);

   // Port commands address the active port of an id.
   EXPECT_EQ(Status(DVSHYP_CMD_PORT_DATA_SET, Rec("s1", "p1", "k"), "v"), STATUS_OK);
   EXPECT_EQ(Call(DVSHYP_CMD_PORT_DATA_GET, Rec("s1", "p1", "k")).out, "v");
   EXPECT_EQ(Decode(Call(DVSHYP_CMD_PORT_STATE_GET, Rec("s1", "p1")).out),
             (Props{{"alias", "a"}, {"k", "v"}}));
   EXPECT_EQ(Status(DVSHYP_CMD_PORT_DATA_CLEAR, Rec("s1", "p1", "k")), STATUS_OK);
   EXPECT_EQ(Status(DVSHYP_CMD_PORT_DATA_GET, Rec("s1", "p1", "k")), STATUS_NOT_FOUND);
   EXPECT_EQ(Status(DVSHYP_CMD_PORT_FIND, Rec("s1", "p9")), STATUS_NOT_FOUND);

   EXPECT_EQ(Status(DVSHYP_CMD_PORT_REMOVE, Rec("s1", "p1")), STATUS_OK);
   EXPECT_EQ(Status(DVSHYP_CMD_PORT_FIND, Rec("s1", "p1")), STATUS_OK);
   EXPECT_EQ(Decode(Call(DVSHYP_CMD_PORT_STATE_GET, Rec("s1", "p1")).out),
             (Props{{"alias", "b"}, {DVS_PROP_PORT_TYPE, U32(DVS_PORT_SHADOW)}}));

   // Sanitizing drops zombie ports only.
   ASSERT_EQ(Status(DVSHYP_CMD_SWITCH_SET_MAX_PORTS, Rec("s1")), STATUS_OK);  // 0: no limit
   EXPECT_EQ(AddPort("s1", "z1", {}, DVS_PORT_ZOMBIE), STATUS_OK);
   EXPECT_EQ(Status(DVSHYP_CMD_STATE_SANITIZE, Rec()), STATUS_OK);
   EXPECT_EQ(Exec("s1", "ports"),
             "p1 shadow properties=1 uplinks=0\n"
             "p2 active properties=0 uplinks=0\n");
}

TEST_F(SimTest, StateGetWritesTheLibrarysHostBlobAndStateInitTakesItBack) {
   ASSERT_EQ(AddSwitch("s1", 64), STATUS_OK);
   ASSERT_EQ(AddSwitch("s2", 8, 100), STATUS_OK);
   ASSERT_EQ(Status(DVSHYP_CMD_GLOBAL_PROP_SET, Rec("s1", "", "g"), "x"), STATUS_OK);
   ASSERT_EQ(AddPort("s1", "p1", {{"alias", "a"}}), STATUS_OK);

   // With active ports only, the library writes back the very same bytes.
   const std::string plain = StateGet();
   ASSERT_EQ(DVSState_ConfigDeserialize(plain.data(), plain.size()), STATUS_OK);
   EXPECT_EQ(testsupport::HostBlob(), plain);
   DVSState_ConfigReset();

   ASSERT_EQ(AddPort("s1", "p2", {}, DVS_PORT_SHADOW), STATUS_OK);
   const std::string blob = StateGet();
   const Props host = Decode(blob);
   ASSERT_EQ(Names(host), (std::vector<std::string>{"s1", "s2"}));
   const Props s1 = Decode(host[0].second);
   EXPECT_EQ(Names(s1), (std::vector<std::string>{"switchVersion", "className", "maxPorts",
                                                  "globalPropList", "hostPropList", "p1", "p2"}));
   EXPECT_EQ(s1[0].second, U32(7));
   EXPECT_EQ(s1[1].second, "myclass" + std::string(121, '\0'));
   EXPECT_EQ(s1[2].second, U32(64));
   EXPECT_EQ(Decode(s1[3].second), (Props{{"g", "x"}}));
   EXPECT_EQ(Decode(s1[6].second), (Props{{DVS_PROP_PORT_TYPE, U32(DVS_PORT_SHADOW)}}));

   // A restart loses the state; the blob brings all of it back.
   ASSERT_EQ(Status(DVSHYP_CMD_STATE_CLEANUP, Rec()), STATUS_OK);
   EXPECT_EQ(Decode(StateGet()), Props{});
   ASSERT_EQ(Status(DVSHYP_CMD_STATE_INIT, Rec(), blob), STATUS_OK);
   EXPECT_EQ(StateGet(), blob);

   // A damaged blob is refused and the state stays as it was.
   std::string flipped = blob;
   flipped[blob.size() / 2] ^= 0x40;
   EXPECT_EQ(Status(DVSHYP_CMD_STATE_INIT, Rec(), flipped), STATUS_BAD_CHECKSUM);
   EXPECT_EQ(Status(DVSHYP_CMD_STATE_INIT, Rec(), blob.substr(0, 40)), STATUS_BAD_PARAM);
   EXPECT_EQ(StateGet(), blob);
}

TEST_F(SimTest, ResultsLargerThanTheCapacityAskForTheirLength) {
   ASSERT_EQ(AddSwitch("s1"), STATUS_OK);
   for (int i = 0; i < 20; i++)
      ASSERT_EQ(AddPort("s1", "p" + std::to_string(i), {{"alias", "port"}}), STATUS_OK);
   const Answer small = Call(DVSHYP_CMD_STATE_GET, Rec(), "", 100);
   EXPECT_EQ(small.status, STATUS_LIMIT_EXCEEDED);
   EXPECT_GT(small.rec.dataLen, 100u);
   EXPECT_EQ(small.out, "");
   const Answer fits = Call(DVSHYP_CMD_STATE_GET, Rec(), "", small.rec.dataLen);
   EXPECT_EQ(fits.status, STATUS_OK);
   EXPECT_EQ(fits.out.size(), small.rec.dataLen);

   const std::string input(5000, 'e');
   const Answer cut = Call(DVSHYP_CMD_EXEC, Rec("", "", "", "echo"), input, 100);
   EXPECT_EQ(cut.status, STATUS_LIMIT_EXCEEDED);
   EXPECT_EQ(cut.rec.cmdOutLen, 5000u);
   const Answer whole = Call(DVSHYP_CMD_EXEC, Rec("", "", "", "echo"), input, 5000);
   EXPECT_EQ(whole.status, STATUS_OK);
   EXPECT_EQ(whole.out, input);
}

TEST_F(SimTest, UplinksAndRequestsItCannotRun) {
   ASSERT_EQ(AddSwitch("s1"), STATUS_OK);
   ASSERT_EQ(AddPort("s1", "p1"), STATUS_OK);
   EXPECT_EQ(Status(DVSHYP_CMD_UPLINK_DATA_SET, Rec("s1", "p1", "3"), "up3"), STATUS_OK);
   EXPECT_EQ(Call(DVSHYP_CMD_UPLINK_DATA_GET, Rec("s1", "p1", "3")).out, "up3");
   EXPECT_EQ(Status(DVSHYP_CMD_UPLINK_DATA_GET, Rec("s1", "p1", "4")), STATUS_NOT_FOUND);
   for (const char *bad : {"x", "3a", "-1", ""})
      EXPECT_EQ(Status(DVSHYP_CMD_UPLINK_DATA_SET, Rec("s1", "p1", bad), "v"), STATUS_BAD_PARAM);

   const Answer unknown = Call(23, Rec("s1"));
   EXPECT_EQ(unknown.status, STATUS_NOT_SUPPORTED);
   EXPECT_EQ(unknown.result, uint32_t(ENOTTY));
   EXPECT_EQ(Status(DVSHYP_CMD_EXEC, Rec("s1", "", "", "bogus")), STATUS_NOT_SUPPORTED);
   DVSHYPCmd rec = Rec("s1", "", "g");
   std::memset(rec.switchName, 'x', sizeof rec.switchName);  // no terminator
   EXPECT_EQ(Status(DVSHYP_CMD_GLOBAL_PROP_SET, rec, "v"), STATUS_BAD_PARAM);
   // Input that does not match the record's length.
   rec = Rec("s1", "", "g");
   rec.dataLen = 10;
   EXPECT_EQ(sim_.Execute(DVSHYP_CMD_GLOBAL_PROP_SET, rec, "ab").record.status, STATUS_BAD_PARAM);
}

TEST_F(SimTest, MalformedRequestsLeaveTheServerServing) {
   const auto header = [](uint32_t inLen) {
      const wire::WireRequest req{wire::kRequestMagic, DVSHYP_CMD_SWITCH_ADD, inLen};
      return std::string(reinterpret_cast<const char *>(&req), sizeof req);
   };
   const DVSHYPCmd rec = Rec("s1", "", "myclass");
   const std::string record(reinterpret_cast<const char *>(&rec), sizeof rec);
   char byte;
   {
      Client garbage(path_);
      ASSERT_TRUE(garbage.Send(std::string(600, '\x5a')));
      EXPECT_FALSE(garbage.Recv(&byte, 1));  // closed
   }
   {
      Client truncated(path_);
      ASSERT_TRUE(truncated.Send(header(0) + record.substr(0, 100)));
   }
   {
      Client huge(path_);
      ASSERT_TRUE(huge.Send(header(wire::kMaxPayload + 1) + record));
      wire::WireResponse resp{};
      DVSHYPCmd back{};
      ASSERT_TRUE(huge.Recv(&resp, sizeof resp) && huge.Recv(&back, sizeof back));
      EXPECT_EQ(resp.result, uint32_t(EMSGSIZE));
      EXPECT_EQ(back.status, STATUS_BAD_PARAM);
      EXPECT_FALSE(huge.Recv(&byte, 1));
   }
   // The connection opened before all that is still served.
   EXPECT_EQ(AddSwitch("s1"), STATUS_OK);
}

TEST_F(SimTest, ConcurrentClientsEachKeepTheirOwnSwitch) {
   constexpr int kClients = 4, kPorts = 40;
   std::atomic<int> errors{0};
   std::vector<std::thread> threads;
   for (int c = 0; c < kClients; c++)
      threads.emplace_back([&, c] {
         Client client(path_);
         const std::string sw = "w" + std::to_string(c);
         DVSHYPCmd add = Rec(sw, "", "myclass");
         add.version = 7;
         errors += client.Call(DVSHYP_CMD_SWITCH_ADD, add).status != 0;
         for (int p = 0; p < kPorts; p++) {
            const std::string port = "p" + std::to_string(p);
            errors += client.Call(DVSHYP_CMD_PORT_ADD, Rec(sw, port), Serialize({})).status != 0;
            errors += client.Call(DVSHYP_CMD_PORT_DATA_SET, Rec(sw, port, "n"), port).status != 0;
            errors += client.Call(DVSHYP_CMD_STATE_GET, Rec(), "", 1 << 20).status != 0;
         }
      });
   for (std::thread &t : threads)
      t.join();
   EXPECT_EQ(errors, 0);
   const Props host = Decode(StateGet());
   ASSERT_EQ(host.size(), size_t(kClients));
   for (const auto &[id, sw] : host)
      EXPECT_EQ(Decode(sw).size(), size_t(5 + kPorts)) << id;
}

TEST_F(SimTest, PlannedFaultsFailTheNextCommands) {
   sim_.InjectFault(DVSHYP_CMD_SWITCH_ADD, 1, STATUS_NO_MEMORY);
   EXPECT_EQ(AddSwitch("s1"), STATUS_NO_MEMORY);
   EXPECT_EQ(Decode(StateGet()), Props{});  // not run
   EXPECT_EQ(AddSwitch("s1"), STATUS_OK);

   sim_.InjectFault(DVSHYP_CMD_STATE_GET, 1, STATUS_LIMIT_EXCEEDED, 100u);
   const Answer a = Call(DVSHYP_CMD_STATE_GET, Rec());
   EXPECT_EQ(a.status, STATUS_LIMIT_EXCEEDED);
   EXPECT_EQ(a.rec.dataLen, 100u);

   Exec("", "fault 5:*:0xbad0001,4:1:drop");
   EXPECT_EQ(Exec("", "fault"), "4:1:drop\n5:*:0xbad0001\n");
   EXPECT_FALSE(client_->Call(DVSHYP_CMD_SWITCH_ADD, Rec("s2", "", "c")).answered);
   client_ = std::make_unique<Client>(path_);
   EXPECT_EQ(Status(DVSHYP_CMD_SWITCH_REMOVE, Rec("s1")), STATUS_FAILURE);
   EXPECT_EQ(Status(DVSHYP_CMD_SWITCH_REMOVE, Rec("s1")), STATUS_FAILURE);
   Exec("", "fault clear");
   EXPECT_EQ(Status(DVSHYP_CMD_SWITCH_REMOVE, Rec("s1")), STATUS_OK);

   std::vector<sim::Fault> faults;
   std::string error;
   for (const char *bad : {"4:1", "x:1:OK", "4:1:NOPE", "4:1:OK:z", "4:-1:OK", "4:1:OK,"})
      EXPECT_FALSE(sim::ParseFaults(bad, &faults, &error)) << bad;
   ASSERT_TRUE(sim::ParseFaults("3:2:STATUS_LIMIT_EXCEEDED:40000", &faults, &error));
   EXPECT_EQ(sim::FormatFault(faults.at(0)), "3:2:0xbad0006:40000");
}

TEST_F(SimTest, StopRemovesTheSocketAndAStaleOneIsReplaced) {
   sim::Server second(sim_);
   std::string error;
   EXPECT_FALSE(second.Start(path_, &error));  // in use
   server_.Stop();
   EXPECT_NE(access(path_.c_str(), F_OK), 0);
   EXPECT_FALSE(Client(path_).Call(DVSHYP_CMD_STATE_CLEANUP, Rec()).answered);

   // A socket file nobody listens on any more.
   const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
   const sockaddr_un addr = Address(path_);
   ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr), 0);
   close(fd);
   ASSERT_TRUE(second.Start(path_, &error)) << error;
   EXPECT_TRUE(Client(path_).Call(DVSHYP_CMD_STATE_CLEANUP, Rec()).answered);
}

}  // namespace
