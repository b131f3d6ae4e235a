// state_file.h -- the persistent state file as dvsctl uses it.
//
// The file holds one host configuration blob padded with zeros to whole
// 512-byte sectors; the library reads and writes it (DVSFile_Read,
// DVSFile_Write).  The blob's own header gives its length, so readers here
// cut the padding off before handing the blob on.  Library failures throw
// dvsctl::Error "<what>: <status text> (0x<code>)".
#ifndef DVSCTL_STATE_FILE_H
#define DVSCTL_STATE_FILE_H

#include <cstdint>
#include <string>

#include "io.h"

namespace dvsctl {

// The blob in the state file at `path`, without the padding.
Bytes ReadStateFileBlob(const std::string &path);

// Replaces the state file at `path` with `blob`; returns the size of the
// file written (the blob rounded up to whole sectors).
uint64_t WriteStateFileBlob(const std::string &path, const Bytes &blob);

}  // namespace dvsctl

#endif  // DVSCTL_STATE_FILE_H
