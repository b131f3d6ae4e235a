// main.cc -- dvsctl: command-line access to libdvs data.
//
// Each command family (blob, state, kernel, file, store, fleet) adds its subcommands to the
// application; the chosen subcommand runs from its CLI11 callback during
// parse().  Failures arrive here as exceptions and become a one-line
// message on stderr and exit status 1; usage errors keep CLI11's own
// message and exit code.
#include <exception>
#include <iostream>

#include <CLI/CLI.hpp>

#include "blob_command.h"
#include "fleet_command.h"
#include "kernel_command.h"
#include "state_command.h"
#include "state_file_command.h"
#include "store_command.h"

int main(int argc, char **argv) {
   CLI::App app{"Inspect and manipulate distributed virtual switch data", "dvsctl"};
   app.require_subcommand(1);

   dvsctl::AddBlobCommand(app);
   dvsctl::AddStateCommand(app);
   dvsctl::AddKernelCommand(app);
   dvsctl::AddFileCommand(app);
   dvsctl::AddStoreCommand(app);
   dvsctl::AddFleetCommand(app);

   try {
      app.parse(argc, argv);
   } catch (const CLI::ParseError &e) {
      return app.exit(e);
   } catch (const std::exception &e) {
      std::cerr << "dvsctl: " << e.what() << '\n';
      return 1;
   } catch (...) {
      std::cerr << "dvsctl: unexpected error\n";
      return 1;
   }
   return 0;
}
