// Tests of the etcd gateway client: wire format on its own, then against
// real etcd members on loopback.
#include "etcd_client.h"
#include "etcd_cluster.h"
#include "etcd_wire.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

using namespace configstore::detail;
using configstore_test::EtcdCluster;
using Clock = std::chrono::steady_clock;
namespace wire = etcd_wire;

double MsSince(Clock::time_point t) {
   return std::chrono::duration<double, std::milli>(Clock::now() - t).count();
}

std::unique_ptr<EtcdClient> Connect(const std::vector<std::string> &endpoints,
                                    EtcdOptions options = {}) {
   std::unique_ptr<EtcdClient> c;
   EXPECT_EQ(EtcdClient::Create(endpoints, options, &c), EtcdCode::kOk);
   return c;
}

std::vector<std::string> Keys(const RangeResult &r) {
   std::vector<std::string> out;
   for (const KeyValue &kv : r.kvs) {
      out.push_back(kv.key);
   }
   return out;
}

RangeResult Get(EtcdClient &c, const std::string &key, bool prefix = false,
                bool by_create = false) {
   RangeRequest req;
   req.key = key;
   req.prefix = prefix;
   req.sort_by_create = by_create;
   RangeResult r;
   EXPECT_EQ(c.Range(req, &r), EtcdCode::kOk) << c.LastError();
   return r;
}

// A server that takes connections (through the listen backlog) and never
// answers: requests to it can only time out.
struct SilentServer {
   SilentServer() {
      fd = socket(AF_INET, SOCK_STREAM, 0);
      sockaddr_in a{};
      a.sin_family = AF_INET;
      a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      socklen_t len = sizeof a;
      if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
          listen(fd, 16) == 0 && getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) == 0) {
         endpoint = "127.0.0.1:" + std::to_string(ntohs(a.sin_port));
      }
   }
   ~SilentServer() { close(fd); }
   int fd = -1;
   std::string endpoint;
};

// A loopback port nobody listens on.
std::string ClosedEndpoint() {
   SilentServer s;  // bound, then closed on return
   return s.endpoint;
}

void Measure(EtcdClient &c, const std::string &prefix, const char *what) {
   std::vector<double> put_ms;
   for (int i = 0; i < 20; i++) {
      auto t = Clock::now();
      ASSERT_EQ(c.Put(prefix + "lat", std::to_string(i), nullptr), EtcdCode::kOk);
      put_ms.push_back(MsSince(t));
   }
   std::sort(put_ms.begin(), put_ms.end());
   std::vector<TxnOp> ops;
   for (int i = 0; i < 1000; i++) {
      ops.push_back(
         {TxnOp::Kind::kPut, prefix + "txn/" + std::to_string(i), std::string(200, 'v')});
   }
   std::vector<double> txn_ms;
   for (int i = 0; i < 3; i++) {
      TxnResult r;
      auto t = Clock::now();
      ASSERT_EQ(c.Txn({}, ops, &r), EtcdCode::kOk) << c.LastError();
      txn_ms.push_back(MsSince(t));
   }
   std::sort(txn_ms.begin(), txn_ms.end());
   std::printf("[ latency  ] %s: put median %.1f ms (max %.1f), 1000-op txn median %.1f ms\n", what,
               put_ms[10], put_ms.back(), txn_ms[1]);
   // Generous bounds for a loaded machine; they catch a stall per request
   // (such as waiting for a 100-continue), not slowness.
   EXPECT_LT(put_ms[10], 500.0);
   EXPECT_LT(txn_ms[1], 3000.0);
}

TEST(EtcdWireTest, EncodingAndAnswers) {
   const std::string binary("\0\x01\xff\xfe=\n", 6);
   for (size_t len = 0; len <= binary.size(); len++) {
      std::string back;
      ASSERT_TRUE(wire::Base64Decode(wire::Base64Encode(binary.substr(0, len)), &back));
      EXPECT_EQ(back, binary.substr(0, len));
   }
   std::string junk;
   for (const char *bad : {"abc", "a!==", "Zm9v\"", "===="}) {
      EXPECT_FALSE(wire::Base64Decode(bad, &junk)) << bad;
   }

   struct {
      std::string prefix, end;
   } ends[] = {
      {"a/", "a0"}, {"a\xff", "b"}, {"\xff\xff", std::string(1, '\0')}, {"", std::string(1, '\0')}};
   for (const auto &e : ends) {
      EXPECT_EQ(wire::PrefixEnd(e.prefix), e.end);
   }

   // Zero fields are left out of answers; numbers come as strings.
   wire::Header h;
   RangeResult r;
   EXPECT_EQ(wire::ReadRange(R"({"header":{"member_id":"18446744073709551615","revision":"7"},)"
                             R"("kvs":[{"key":"YQ==","create_revision":"3","mod_revision":"5",)"
                             R"("version":"2"},{"key":"Yg==","value":"AP8="}],"count":"2"})",
                             &h, &r),
             EtcdCode::kOk);
   EXPECT_EQ(h.member_id, UINT64_MAX);
   ASSERT_EQ(r.kvs.size(), 2u);
   EXPECT_EQ(r.kvs[0].value, "");
   EXPECT_EQ(r.kvs[0].create_revision, 3);
   EXPECT_EQ(r.kvs[1].value, std::string("\0\xff", 2));
   EXPECT_EQ(r.revision, 7);
   for (const char *bad : {"", "[]", R"({"kvs":[]})", R"({"header":{"revision":"x"}})",
                           R"({"header":{},"kvs":[{"key":"!"}]})", R"({"header":{},"kvs":{}})",
                           R"({"header":{"revision":"99999999999999999999"}})"}) {
      EXPECT_EQ(wire::ReadRange(bad, &h, &r), EtcdCode::kBadAnswer) << bad;
   }

   struct {
      long http;
      const char *body;
      EtcdCode code;
      wire::Retry retry;
   } errors[] = {
      {400, R"({"message":"etcdserver: too many operations in txn request","code":3})",
       EtcdCode::kTooLarge, wire::Retry::kNever},
      {400, R"({"message":"etcdserver: request is too large","code":3})", EtcdCode::kTooLarge,
       wire::Retry::kNever},
      {429, R"j({"message":"grpc: received message larger than max (9 vs. 8)","code":8})j",
       EtcdCode::kTooLarge, wire::Retry::kNever},
      {503, R"({"message":"etcdserver: no leader","code":14})", EtcdCode::kUnreachable,
       wire::Retry::kAny},
      {503, R"({"message":"etcdserver: request timed out","code":14})", EtcdCode::kTimeout,
       wire::Retry::kReadsOnly},
      {400, R"({"message":"etcdserver: key is not provided","code":3})", EtcdCode::kRejected,
       wire::Retry::kNever},
      {404, "Not Found", EtcdCode::kBadAnswer, wire::Retry::kNever},
   };
   for (const auto &e : errors) {
      wire::ErrorAnswer a = wire::ReadError(e.http, e.body);
      EXPECT_EQ(a.code, e.code) << e.body;
      EXPECT_EQ(a.retry, e.retry) << e.body;
   }
}

TEST(EtcdClientTest, BadEndpointsAreRefused) {
   std::unique_ptr<EtcdClient> c;
   for (const std::vector<std::string> &list : std::vector<std::vector<std::string>>{
           {}, {"127.0.0.1"}, {":2379"}, {"host:"}, {"h:12x"}, {"h:1/x"}, {"a:1", "b"}}) {
      EXPECT_EQ(EtcdClient::Create(list, {}, &c), EtcdCode::kRejected);
      EXPECT_EQ(c, nullptr);
   }
}

TEST(EtcdClientTest, DeadEndpointsFailWithinTheBound) {
   EtcdOptions o;
   o.connect_timeout_ms = 300;
   o.request_timeout_ms = 300;
   o.deadline_ms = 2000;
   auto refused = Connect({ClosedEndpoint(), ClosedEndpoint(), ClosedEndpoint()}, o);
   auto t = Clock::now();
   RangeResult r;
   EXPECT_EQ(refused->Range({"k"}, &r), EtcdCode::kUnreachable);
   const double refused_ms = MsSince(t);
   EXPECT_LT(refused_ms, 1000.0);

   // A server that never answers: a read tries every endpoint, then gives
   // up at the deadline; a write stops after its one timed-out attempt.
   SilentServer silent;
   auto mute = Connect({silent.endpoint, ClosedEndpoint()}, o);
   t = Clock::now();
   EXPECT_EQ(mute->Range({"k"}, &r), EtcdCode::kTimeout);
   const double read_ms = MsSince(t);
   EXPECT_GE(read_ms, 250.0);
   EXPECT_LT(read_ms, 2500.0);
   t = Clock::now();
   EXPECT_EQ(mute->Put("k", "v", nullptr), EtcdCode::kTimeout);
   const double write_ms = MsSince(t);
   EXPECT_LT(write_ms, 1000.0);
   std::printf("[ bounded  ] refused x3: %.0f ms, silent read: %.0f ms, silent write: %.0f ms\n",
               refused_ms, read_ms, write_ms);
}

class EtcdSingleNodeTest : public ::testing::Test {
  protected:
   static void SetUpTestSuite() {
      cluster_ = new EtcdCluster();
      if (!cluster_->Start(1, 4L << 20)) {
         std::fprintf(stderr, "etcd did not start: %s\n", cluster_->Error().c_str());
      }
   }
   static void TearDownTestSuite() {
      delete cluster_;
      cluster_ = nullptr;
   }
   void SetUp() override {
      ASSERT_TRUE(cluster_->Error().empty()) << cluster_->Error();
      client_ = Connect(cluster_->Endpoints());
      ASSERT_NE(client_, nullptr);
   }
   static EtcdCluster *cluster_;
   std::unique_ptr<EtcdClient> client_;
};
EtcdCluster *EtcdSingleNodeTest::cluster_ = nullptr;

TEST_F(EtcdSingleNodeTest, PutRangeDelete) {
   EtcdClient &c = *client_;
   const std::string bin("v\0\xff\n", 4);
   // Written out of key order: creation order differs from key order.
   int64_t rev = 0, prev = 0;
   for (const char *k : {"kv/c", "kv/a", "kv/b\xff", "kv/b"}) {
      ASSERT_EQ(c.Put(k, bin + k, &rev), EtcdCode::kOk) << c.LastError();
      EXPECT_GT(rev, prev);
      prev = rev;
   }
   ASSERT_EQ(c.Put("kv0", "outside", nullptr), EtcdCode::kOk);

   RangeResult r = Get(c, "kv/", true);
   EXPECT_EQ(Keys(r), (std::vector<std::string>{"kv/a", "kv/b", "kv/b\xff", "kv/c"}));
   EXPECT_EQ(r.kvs[0].value, bin + "kv/a");
   EXPECT_EQ(Keys(Get(c, "kv/", true, true)),
             (std::vector<std::string>{"kv/c", "kv/a", "kv/b\xff", "kv/b"}));

   // Rewriting keeps the creation revision and moves the modification one.
   const KeyValue before = Get(c, "kv/c").kvs.at(0);
   ASSERT_EQ(c.Put("kv/c", "", &rev), EtcdCode::kOk);
   const KeyValue after = Get(c, "kv/c").kvs.at(0);
   EXPECT_EQ(after.create_revision, before.create_revision);
   EXPECT_EQ(after.mod_revision, rev);
   EXPECT_EQ(after.version, before.version + 1);
   EXPECT_EQ(after.value, "");

   RangeRequest limited{"kv/", true, false, true, 2};
   ASSERT_EQ(c.Range(limited, &r), EtcdCode::kOk);
   EXPECT_EQ(r.kvs.size(), 2u);
   EXPECT_TRUE(r.more);
   EXPECT_EQ(r.count, 4);
   EXPECT_EQ(r.kvs[0].value, "");  // keys only

   int64_t deleted = 0;
   ASSERT_EQ(c.DeleteRange("kv/a", false, &deleted, nullptr), EtcdCode::kOk);
   EXPECT_EQ(deleted, 1);
   ASSERT_EQ(c.DeleteRange("kv/", true, &deleted, nullptr), EtcdCode::kOk);
   EXPECT_EQ(deleted, 3);
   EXPECT_TRUE(Get(c, "kv/", true).kvs.empty());
   EXPECT_EQ(Get(c, "kv0").kvs.at(0).value, "outside");
   EXPECT_EQ(c.Put("", "v", nullptr), EtcdCode::kRejected);
}

TEST_F(EtcdSingleNodeTest, TransactionsAreAllOrNothing) {
   EtcdClient &c = *client_;
   int64_t rev = 0;
   ASSERT_EQ(c.Put("tx/old", "1", &rev), EtcdCode::kOk);
   const std::vector<TxnOp> ops = {{TxnOp::Kind::kPut, "tx/new", "n"},
                                   {TxnOp::Kind::kPut, "tx/old", "2"},
                                   {TxnOp::Kind::kDelete, "tx/gone", "", true}};
   ASSERT_EQ(c.Put("tx/gone/1", "x", nullptr), EtcdCode::kOk);
   ASSERT_EQ(c.Put("tx/old", "1", &rev), EtcdCode::kOk);

   // Each compare failing on its own leaves everything as it was.
   const std::vector<std::vector<Compare>> failing = {
      {{"tx/old", Compare::Target::kMod, Compare::Op::kEqual, rev - 1}},
      {{"tx/new", Compare::Target::kCreate, Compare::Op::kNotEqual, 0}},
      {{"tx/old", Compare::Target::kVersion, Compare::Op::kGreater, 2}},
      {{"tx/old", Compare::Target::kMod, Compare::Op::kLess, rev}},
      {{"tx/new", Compare::Target::kCreate, Compare::Op::kEqual, 0},
       {"tx/old", Compare::Target::kMod, Compare::Op::kEqual, rev + 1}},
   };
   for (const auto &cmp : failing) {
      TxnResult res;
      EXPECT_EQ(c.Txn(cmp, ops, &res), EtcdCode::kConflict);
      EXPECT_FALSE(res.succeeded);
      EXPECT_EQ(res.revision, rev);
   }
   EXPECT_EQ(Keys(Get(c, "tx/", true)), (std::vector<std::string>{"tx/gone/1", "tx/old"}));

   TxnResult res;
   ASSERT_EQ(c.Txn({{"tx/new", Compare::Target::kCreate, Compare::Op::kEqual, 0},
                    {"tx/old", Compare::Target::kMod, Compare::Op::kEqual, rev},
                    {"tx/old", Compare::Target::kVersion, Compare::Op::kEqual, 2}},
                   ops, &res),
             EtcdCode::kOk)
      << c.LastError();
   EXPECT_TRUE(res.succeeded);
   RangeResult r = Get(c, "tx/", true);
   ASSERT_EQ(Keys(r), (std::vector<std::string>{"tx/new", "tx/old"}));
   for (const KeyValue &kv : r.kvs) {
      EXPECT_EQ(kv.mod_revision, res.revision);  // one revision for all writes
   }
   EXPECT_EQ(r.kvs[1].value, "2");

   // Over the server's limits: refused whole, nothing written.
   std::vector<TxnOp> many;
   for (int i = 0; i <= EtcdCluster::kMaxTxnOps; i++) {
      many.push_back({TxnOp::Kind::kPut, "big/" + std::to_string(i), "x"});
   }
   EXPECT_EQ(c.Txn({}, many, &res), EtcdCode::kTooLarge) << c.LastError();
   const size_t limit = static_cast<size_t>(cluster_->max_request_bytes());
   const std::string huge(limit + 1, 'h');
   EXPECT_EQ(c.Txn({}, {{TxnOp::Kind::kPut, "big/huge", huge}, many[0]}, &res), EtcdCode::kTooLarge)
      << c.LastError();
   EXPECT_EQ(c.Put("big/huge", huge, nullptr), EtcdCode::kTooLarge);
   EXPECT_TRUE(Get(c, "big/", true).kvs.empty());
   // A request just under the limit goes through.
   ASSERT_EQ(c.Put("big/ok", std::string(limit - 4096, 'o'), nullptr), EtcdCode::kOk)
      << c.LastError();
   EXPECT_EQ(Get(c, "big/ok").kvs.at(0).value.size(), limit - 4096);
   ASSERT_EQ(c.DeleteRange("big/", true, nullptr, nullptr), EtcdCode::kOk);
}

TEST_F(EtcdSingleNodeTest, Latency) {
   Measure(*client_, "lat1/", "single node");
}

// Three members: losing the member the client talks to (leader or not)
// moves the client to another one; a full restart keeps what was committed.
TEST(EtcdClusterTest, FailoverAndRestart) {
   EtcdCluster cluster;
   ASSERT_TRUE(cluster.Start(3)) << cluster.Error();
   int leader = cluster.Leader();
   ASSERT_GE(leader, 0);
   // Leader first, so that is where the client starts.
   std::vector<std::string> endpoints = cluster.Endpoints();
   std::rotate(endpoints.begin(), endpoints.begin() + leader, endpoints.end());
   // What is checked here is that a client moves on to a member that
   // works, not how fast the members elect a leader: on a loaded machine an
   // election after a killed leader can take longer than the default wait
   // of 3 s, which would fail the write and the test for nothing.
   EtcdOptions patient;
   patient.election_wait_ms = 9000;
   auto c = Connect(endpoints, patient);
   ASSERT_NE(c, nullptr);
   Measure(*c, "lat3/", "3 members");
   StatusInfo st;
   ASSERT_EQ(c->Status(&st), EtcdCode::kOk);
   EXPECT_EQ(st.member_id, st.leader);
   EXPECT_EQ(c->CurrentEndpoint(), cluster.Endpoint(leader));

   int written = 0;
   auto put_next = [&](EtcdClient &client, const char *what) {
      std::string key = "fo/" + std::to_string(written);
      auto t = Clock::now();
      EtcdCode rc = client.Put(key, "v" + std::to_string(written), nullptr);
      std::printf("[ failover ] %s: put %s in %.0f ms via %s\n", what, EtcdCodeName(rc), MsSince(t),
                  client.CurrentEndpoint().c_str());
      EXPECT_EQ(rc, EtcdCode::kOk) << client.LastError();
      written += rc == EtcdCode::kOk;
   };
   put_next(*c, "before");

   cluster.Kill(leader);
   put_next(*c, "leader (current) killed");
   EXPECT_NE(c->CurrentEndpoint(), cluster.Endpoint(leader));
   ASSERT_TRUE(cluster.Restart(leader));
   ASSERT_TRUE(cluster.WaitHealthy(20000)) << cluster.Error();
   put_next(*c, "old leader back");

   // A client on a follower moves on when that follower dies.
   const int follower = (cluster.Leader() + 1) % 3;
   auto f = Connect({cluster.Endpoint(follower), cluster.Endpoint((follower + 1) % 3),
                     cluster.Endpoint((follower + 2) % 3)},
                    patient);
   put_next(*f, "on a follower");
   EXPECT_EQ(f->CurrentEndpoint(), cluster.Endpoint(follower));
   cluster.Kill(follower);
   put_next(*f, "follower (current) killed");
   EXPECT_NE(f->CurrentEndpoint(), cluster.Endpoint(follower));
   ASSERT_TRUE(cluster.Restart(follower));
   ASSERT_TRUE(cluster.WaitHealthy(20000)) << cluster.Error();

   // Without quorum no call hangs: the survivor soon says it has no leader
   // and calls answer kUnreachable within the election wait.
   const int keep = follower;
   cluster.Kill((keep + 1) % 3);
   cluster.Kill((keep + 2) % 3);
   EtcdOptions o;
   o.request_timeout_ms = 1500;
   o.election_wait_ms = 1500;
   o.deadline_ms = 4000;
   auto q = Connect({cluster.Endpoint(keep), cluster.Endpoint((keep + 1) % 3)}, o);
   EtcdCode rc = EtcdCode::kOk;
   for (int i = 0; i < 4 && rc != EtcdCode::kUnreachable; i++) {
      RangeResult r;
      auto t = Clock::now();
      rc = q->Range({"fo/", true}, &r);
      std::printf("[ quorum   ] lost: read %s in %.0f ms (%s)\n", EtcdCodeName(rc), MsSince(t),
                  q->LastError().c_str());
      EXPECT_TRUE(rc == EtcdCode::kUnreachable || rc == EtcdCode::kTimeout);
      EXPECT_LT(MsSince(t), 4500.0);
   }
   EXPECT_EQ(rc, EtcdCode::kUnreachable);

   cluster.StopAll();
   RangeResult r;
   EXPECT_EQ(c->Range({"fo/", true}, &r), EtcdCode::kUnreachable);
   ASSERT_TRUE(cluster.RestartAll()) << cluster.Error();
   r = Get(*c, "fo/", true, true);
   ASSERT_EQ(r.kvs.size(), static_cast<size_t>(written));
   for (int i = 0; i < written; i++) {
      EXPECT_EQ(r.kvs[static_cast<size_t>(i)].value, "v" + std::to_string(i));
   }
   EXPECT_EQ(Get(*c, "lat3/txn/", true).kvs.size(), 1000u);
}

}  // namespace
