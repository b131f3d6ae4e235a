// io.h -- whole-file input and output for dvsctl.
//
// Every command takes its input as one byte buffer; "-" names standard
// input (or standard output when writing).  Failures throw dvsctl::Error
// with the path and the system's reason.
#ifndef DVSCTL_IO_H
#define DVSCTL_IO_H

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

namespace dvsctl {

using Bytes = std::vector<uint8_t>;

// Reads all of `path` (or standard input for "-").
Bytes ReadAll(const std::string &path);

// Replaces `path` (or writes standard output for "-") with `data`.
void WriteAll(const std::string &path, const Bytes &data);

// Flushes a command's output stream; throws when it could not be written
// (a closed pipe, a full disk).
void FlushOutput(std::ostream &out);

// How messages name `path`: "<stdin>"/"<stdout>" for "-".
std::string DisplayName(const std::string &path, bool writing = false);

}  // namespace dvsctl

#endif  // DVSCTL_IO_H
