// etcd_cluster.h -- etcd members started by a test on free 127.0.0.1 ports
// with temporary data directories.
//
// Members run as child processes of the test; they are killed by pid when
// the harness is destroyed (also when a test assertion fails), and, through
// the parent-death signal, when the test process itself dies.  Every wait
// is bounded.
#ifndef CONFIGSTORE_TESTS_ETCD_CLUSTER_H
#define CONFIGSTORE_TESTS_ETCD_CLUSTER_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace configstore_test {

class EtcdCluster {
  public:
   // Server limits sized for saving a whole host in one transaction.
   static constexpr int kMaxTxnOps = 10000;
   static constexpr long kMaxRequestBytes = 32L << 20;

   EtcdCluster() = default;
   ~EtcdCluster();
   EtcdCluster(const EtcdCluster &) = delete;
   EtcdCluster &operator=(const EtcdCluster &) = delete;

   // Starts `members` members and waits until they agree on a leader.
   // False, with the reason in Error(), when that does not happen in time.
   // Tests of the size limit pass a smaller one: the gateway decodes JSON
   // at a few tens of MB/s, so probing a 32 MiB limit costs seconds.
   bool Start(int members, long max_request_bytes = kMaxRequestBytes);
   // SIGKILLs member `i` and reaps it.
   void Kill(int i);
   // Starts a stopped member again on its data directory.
   bool Restart(int i);
   // Stops every member (SIGTERM, then SIGKILL), keeping the data.
   void StopAll();
   // Restarts every stopped member and waits until the cluster is healthy.
   bool RestartAll();
   // Waits until every running member names the same live leader.
   bool WaitHealthy(long timeout_ms);
   // Index of the member that is leader now, or -1.
   int Leader();

   int size() const { return static_cast<int>(members_.size()); }
   std::string Endpoint(int i) const;  // "127.0.0.1:PORT"
   std::vector<std::string> Endpoints() const;
   const std::string &Error() const { return error_; }
   long max_request_bytes() const { return max_request_bytes_; }

  private:
   struct Member {
      int client_port = 0;
      int peer_port = 0;
      std::string data_dir;
      std::string log;
      pid_t pid = -1;
   };

   bool Launch(int i, bool existing);
   void Stop(int i, int signal);
   void Discard();

   std::string root_;
   long max_request_bytes_ = kMaxRequestBytes;
   std::vector<Member> members_;
   std::string error_;
};

}  // namespace configstore_test

#endif  // CONFIGSTORE_TESTS_ETCD_CLUSTER_H
