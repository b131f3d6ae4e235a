// dvs-kernel-sim: the kernel switch simulator as a daemon.
//
//   dvs-kernel-sim --socket PATH [--foreground] [-v[v]]
//
// Serves the switch device commands on the Unix-domain socket PATH until
// SIGTERM or SIGINT, then removes the socket and exits 0.  Once it listens
// it prints "dvs-kernel-sim: listening on PATH" on stdout (flushed), so
// scripts can wait for that line.  Without --foreground it detaches first
// and the line comes from the parent as it exits; detached, the log is lost,
// so run in the foreground to watch it.  -v logs each command on stderr,
// -vv connections too.  DVS_SIM_FAULTS plans faults from the start
// ("CODE:COUNT:STATUS[:LENGTH][,...]", see docs/kernel-simulator.md).
//
// Exit status: 0 after a signal, 1 when the socket cannot be served, 2 for
// a bad DVS_SIM_FAULTS; usage errors keep CLI11's own code.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "sim/server.h"
#include "sim/simulator.h"

namespace {

constexpr const char *kProgram = "dvs-kernel-sim";

void LogLine(const std::string &line) {
   std::fprintf(stderr, "%s: %s\n", kProgram, line.c_str());
}

void PrintReady(const std::string &path) {
   std::printf("%s: listening on %s\n", kProgram, path.c_str());
   std::fflush(stdout);
}

// Forks; the parent waits for the child to report through a pipe whether it
// listens, prints the ready line or the error, and exits.  Returns in the
// child only, with the pipe's write end in *report.
void Detach(int *report) {
   int fds[2];
   if (pipe(fds) != 0) {
      std::perror("dvs-kernel-sim: pipe");
      std::exit(1);
   }
   const pid_t pid = fork();
   if (pid < 0) {
      std::perror("dvs-kernel-sim: fork");
      std::exit(1);
   }
   if (pid > 0) {
      close(fds[1]);
      std::string message;
      char buf[256];
      for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) != 0;) {
         if (n > 0) {
            message.append(buf, static_cast<size_t>(n));
         } else if (errno != EINTR) {
            break;
         }
      }
      // "+PATH" when listening, otherwise the error text.
      if (!message.empty() && message[0] == '+') {
         PrintReady(message.substr(1));
         std::exit(0);
      }
      std::fprintf(stderr, "%s: %s\n", kProgram,
                   message.empty() ? "simulator exited early" : message.c_str());
      std::exit(1);
   }
   close(fds[0]);
   setsid();
   *report = fds[1];
}

void Report(int fd, const std::string &message) {
   const char *p = message.data();
   size_t left = message.size();
   while (left > 0) {
      const ssize_t n = write(fd, p, left);
      if (n < 0 && errno == EINTR) {
         continue;
      }
      if (n <= 0) {
         return;
      }
      p += n;
      left -= static_cast<size_t>(n);
   }
}

// Points the standard streams of a detached simulator at /dev/null.
void DropStdio() {
   const int null = open("/dev/null", O_RDWR);
   if (null < 0) {
      return;
   }
   for (int fd = 0; fd <= 2; fd++) {
      dup2(null, fd);
   }
   if (null > 2) {
      close(null);
   }
}

}  // namespace

int main(int argc, char **argv) {
   CLI::App app{
      "Kernel switch simulator: serves the switch device commands on a Unix-domain socket",
      kProgram};
   std::string socketPath;
   bool foreground = false;
   int verbosity = 0;
   app.add_option("--socket", socketPath, "Unix-domain socket to listen on")->required();
   app.add_flag("--foreground", foreground, "stay attached to the terminal (default: detach)");
   app.add_flag("-v,--verbose", verbosity, "log each command on stderr (-vv: connections too)");
   CLI11_PARSE(app, argc, argv);

   dvs::sim::Simulator simulator;
   if (const char *planned = std::getenv("DVS_SIM_FAULTS");
       planned != nullptr && *planned != '\0') {
      std::vector<dvs::sim::Fault> faults;
      std::string error;
      if (!dvs::sim::ParseFaults(planned, &faults, &error)) {
         std::fprintf(stderr, "%s: DVS_SIM_FAULTS: %s\n", kProgram, error.c_str());
         return 2;
      }
      for (const dvs::sim::Fault &fault : faults) {
         simulator.InjectFault(fault);
      }
   }

   // The main thread takes SIGTERM and SIGINT with sigwait; the server's
   // threads inherit the blocked mask and never see them.
   sigset_t stopSignals;
   sigemptyset(&stopSignals);
   sigaddset(&stopSignals, SIGTERM);
   sigaddset(&stopSignals, SIGINT);
   pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

   // Detach before any thread exists: fork copies only the calling thread.
   int report = -1;
   if (!foreground) {
      Detach(&report);
   }

   if (verbosity >= 1) {
      simulator.SetLogger(LogLine);
   }
   dvs::sim::Server server(simulator);
   if (verbosity >= 2) {
      server.SetLogger(LogLine);
   }
   std::string error;
   if (!server.Start(socketPath, &error)) {
      if (report >= 0) {
         Report(report, error);
      } else {
         std::fprintf(stderr, "%s: %s\n", kProgram, error.c_str());
      }
      return 1;
   }
   if (report >= 0) {
      Report(report, "+" + socketPath);
      close(report);
      DropStdio();
   } else {
      PrintReady(socketPath);
   }

   int signal = 0;
   sigwait(&stopSignals, &signal);
   if (verbosity >= 1) {
      LogLine(std::string("stopping on ") + (signal == SIGINT ? "SIGINT" : "SIGTERM"));
   }
   server.Stop();
   return 0;
}
