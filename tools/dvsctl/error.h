// error.h -- the one exception type dvsctl commands throw.
//
// A command that cannot do its job throws dvsctl::Error with a message that
// already names the file or object concerned; main() prints it after the
// program name and exits with status 1.
#ifndef DVSCTL_ERROR_H
#define DVSCTL_ERROR_H

#include <stdexcept>

namespace dvsctl {

class Error : public std::runtime_error {
  public:
   using std::runtime_error::runtime_error;
};

}  // namespace dvsctl

#endif  // DVSCTL_ERROR_H
