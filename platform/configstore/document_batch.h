// document_batch.h -- the documents of one listing parsed into trees,
// on two threads when the listing is large enough to gain by it.
//
// Internal to libconfigstorec; nothing here is exported.
#ifndef CONFIGSTORE_DOCUMENT_BATCH_H
#define CONFIGSTORE_DOCUMENT_BATCH_H

#include <cstddef>
#include <memory>
#include <vector>

#include "backend.h"
#include "document.h"

namespace configstore {
namespace detail {

// Listings of fewer bytes than this are parsed on the calling thread
// alone: below it, starting a thread costs about what it saves.
constexpr size_t kParallelParseBytes = 256 * 1024;

// Parses every document of `docs` (see ParseDocument) and returns the
// trees in the same order.  Throws what parsing the first document that
// fails, in listing order, throws: the same error a parse of one document
// after the other would stop at.  A listing of at least
// kParallelParseBytes is shared with a helper thread that lives only for
// the call; when no thread can be started, the calling thread parses it
// all.
std::vector<std::unique_ptr<Tree>> ParseDocuments(const std::vector<StoredDocument> &docs,
                                                  const char *const *dropKeys);

}  // namespace detail
}  // namespace configstore

#endif  // CONFIGSTORE_DOCUMENT_BATCH_H
