// etcd_cluster.cc -- etcd members as child processes of a test.
#include "etcd_cluster.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <thread>

#include "etcd_client.h"

namespace configstore_test {

namespace fs = std::filesystem;
using configstore::detail::EtcdClient;
using configstore::detail::EtcdCode;
using configstore::detail::EtcdOptions;
using configstore::detail::StatusInfo;

namespace {

// `count` distinct ports that were free on 127.0.0.1 a moment ago.
std::vector<int> FreePorts(int count) {
   std::vector<int> fds, ports;
   for (int i = 0; i < count; i++) {
      int fd = socket(AF_INET, SOCK_STREAM, 0);
      if (fd < 0) {
         break;
      }
      fds.push_back(fd);
      sockaddr_in a{};
      a.sin_family = AF_INET;
      a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      socklen_t len = sizeof a;
      if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 ||
          getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) != 0) {
         break;
      }
      ports.push_back(ntohs(a.sin_port));
   }
   for (int fd : fds) {
      close(fd);
   }
   return ports;
}

StatusInfo AskStatus(const std::string &endpoint, bool *ok) {
   EtcdOptions o;
   o.connect_timeout_ms = 500;
   o.request_timeout_ms = 1000;
   o.deadline_ms = 1000;
   std::unique_ptr<EtcdClient> c;
   StatusInfo s;
   *ok = EtcdClient::Create({endpoint}, o, &c) == EtcdCode::kOk && c->Status(&s) == EtcdCode::kOk;
   return s;
}

}  // namespace

EtcdCluster::~EtcdCluster() {
   Discard();
}

std::string EtcdCluster::Endpoint(int i) const {
   return "127.0.0.1:" + std::to_string(members_[static_cast<size_t>(i)].client_port);
}

std::vector<std::string> EtcdCluster::Endpoints() const {
   std::vector<std::string> out;
   for (int i = 0; i < size(); i++) {
      out.push_back(Endpoint(i));
   }
   return out;
}

bool EtcdCluster::Start(int members, long max_request_bytes) {
   max_request_bytes_ = max_request_bytes;
   // A port taken between picking and binding shows as a cluster that
   // never becomes healthy: try again on new ports, a bounded number of times.
   for (int attempt = 0; attempt < 3; attempt++) {
      Discard();
      std::string tmpl = (fs::temp_directory_path() / "etcd-test-XXXXXX").string();
      if (mkdtemp(&tmpl[0]) == nullptr) {
         error_ = "mkdtemp failed";
         return false;
      }
      root_ = tmpl;
      std::vector<int> ports = FreePorts(2 * members);
      if (static_cast<int>(ports.size()) != 2 * members) {
         error_ = "no free ports";
         return false;
      }
      members_.resize(static_cast<size_t>(members));
      for (int i = 0; i < members; i++) {
         Member &m = members_[static_cast<size_t>(i)];
         m.client_port = ports[static_cast<size_t>(2 * i)];
         m.peer_port = ports[static_cast<size_t>(2 * i + 1)];
         m.data_dir = root_ + "/m" + std::to_string(i);
         m.log = root_ + "/m" + std::to_string(i) + ".log";
      }
      bool launched = true;
      for (int i = 0; i < members && launched; i++) {
         launched = Launch(i, false);
      }
      if (launched && WaitHealthy(20000)) {
         return true;
      }
   }
   return false;
}

bool EtcdCluster::Launch(int i, bool existing) {
   Member &m = members_[static_cast<size_t>(i)];
   std::string cluster;
   for (int j = 0; j < size(); j++) {
      cluster += (j ? "," : "") + std::string("m") + std::to_string(j) +
                 "=http://127.0.0.1:" + std::to_string(members_[static_cast<size_t>(j)].peer_port);
   }
   const std::string client = "http://" + Endpoint(i);
   const std::string peer = "http://127.0.0.1:" + std::to_string(m.peer_port);
   std::vector<std::string> args = {"etcd",
                                    "--name",
                                    "m" + std::to_string(i),
                                    "--data-dir",
                                    m.data_dir,
                                    "--listen-client-urls",
                                    client,
                                    "--advertise-client-urls",
                                    client,
                                    "--listen-peer-urls",
                                    peer,
                                    "--initial-advertise-peer-urls",
                                    peer,
                                    "--initial-cluster",
                                    cluster,
                                    "--initial-cluster-state",
                                    existing ? "existing" : "new",
                                    "--initial-cluster-token",
                                    fs::path(root_).filename().string(),
                                    "--max-txn-ops",
                                    std::to_string(kMaxTxnOps),
                                    "--max-request-bytes",
                                    std::to_string(max_request_bytes_),
                                    "--quota-backend-bytes",
                                    std::to_string(1L << 30),
                                    "--log-level",
                                    "warn"};
   std::vector<char *> argv;
   for (std::string &a : args) {
      argv.push_back(&a[0]);
   }
   argv.push_back(nullptr);
   int log = open(m.log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
   if (log < 0) {
      error_ = "cannot open " + m.log;
      return false;
   }
   const pid_t parent = getpid();
   pid_t pid = fork();
   if (pid == 0) {
      // Only async-signal-safe calls between fork and exec.
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      if (getppid() != parent) {
         _exit(127);
      }
      dup2(log, STDOUT_FILENO);
      dup2(log, STDERR_FILENO);
      execvp("etcd", argv.data());
      _exit(127);
   }
   close(log);
   if (pid < 0) {
      error_ = "fork failed";
      return false;
   }
   m.pid = pid;
   return true;
}

void EtcdCluster::Stop(int i, int signal) {
   Member &m = members_[static_cast<size_t>(i)];
   if (m.pid <= 0) {
      return;
   }
   kill(m.pid, signal);
   // SIGTERM gets 5 s to shut down cleanly, then SIGKILL.
   for (int polls = 0; polls < 100; polls++) {
      if (waitpid(m.pid, nullptr, WNOHANG) == m.pid) {
         m.pid = -1;
         return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
   }
   kill(m.pid, SIGKILL);
   waitpid(m.pid, nullptr, 0);
   m.pid = -1;
}

void EtcdCluster::Kill(int i) {
   Stop(i, SIGKILL);
}

bool EtcdCluster::Restart(int i) {
   return members_[static_cast<size_t>(i)].pid <= 0 && Launch(i, true);
}

void EtcdCluster::StopAll() {
   for (int i = 0; i < size(); i++) {
      Stop(i, SIGTERM);
   }
}

bool EtcdCluster::RestartAll() {
   for (int i = 0; i < size(); i++) {
      if (members_[static_cast<size_t>(i)].pid <= 0 && !Launch(i, true)) {
         return false;
      }
   }
   return WaitHealthy(20000);
}

void EtcdCluster::Discard() {
   StopAll();
   members_.clear();
   if (!root_.empty()) {
      std::error_code ec;
      fs::remove_all(root_, ec);
      root_.clear();
   }
}

bool EtcdCluster::WaitHealthy(long timeout_ms) {
   const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
   while (std::chrono::steady_clock::now() < deadline) {
      uint64_t leader = 0;
      bool agreed = true, leader_alive = false;
      for (int i = 0; i < size() && agreed; i++) {
         if (members_[static_cast<size_t>(i)].pid <= 0) {
            continue;
         }
         if (waitpid(members_[static_cast<size_t>(i)].pid, nullptr, WNOHANG) != 0) {
            members_[static_cast<size_t>(i)].pid = -1;
            error_ = "member " + std::to_string(i) + " exited; see " +
                     members_[static_cast<size_t>(i)].log;
            return false;
         }
         bool ok = false;
         StatusInfo s = AskStatus(Endpoint(i), &ok);
         agreed = ok && s.leader != 0 && (leader == 0 || s.leader == leader);
         leader = s.leader;
         leader_alive = leader_alive || (ok && s.member_id == s.leader);
      }
      if (agreed && leader_alive) {
         return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
   }
   error_ = "cluster not healthy within " + std::to_string(timeout_ms) + " ms";
   return false;
}

int EtcdCluster::Leader() {
   for (int i = 0; i < size(); i++) {
      bool ok = false;
      if (members_[static_cast<size_t>(i)].pid <= 0) {
         continue;
      }
      StatusInfo s = AskStatus(Endpoint(i), &ok);
      if (ok && s.member_id == s.leader) {
         return i;
      }
   }
   return -1;
}

}  // namespace configstore_test
