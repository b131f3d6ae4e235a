// idle_backends.h -- connections that destroyed stores leave open for the
// next store of the same place in this process.
//
// Opening a database connection costs more than a small save or load
// itself: the file and its journal are opened and mapped, the journal mode
// and schema are checked, statements are prepared again, and closing the
// last connection copies the whole journal into the database.  A process
// that opens a store for every call (as the switch library does) keeps a
// few connections idle instead and hands them to the next GetStore.
//
// An idle connection is used again only while its files are the ones it
// had when it went idle: a database file removed, replaced or rewritten
// behind its back (a restored copy, say) retires it without it writing a
// byte, so it can neither show old documents nor copy its journal over the
// new file.  A forked child never touches its parent's idle connections.
// Those left at exit are closed as DestroyStore used to close them.
//
// Internal to libconfigstorec.
#ifndef CONFIGSTORE_IDLE_BACKENDS_H
#define CONFIGSTORE_IDLE_BACKENDS_H

#include <memory>
#include <string_view>

#include "backend.h"

namespace configstore {
namespace detail {

// An idle backend of `place` that may serve again, or null.
std::unique_ptr<Backend> TakeIdleBackend(std::string_view place) noexcept;
// The backend of a store being destroyed: kept idle when it can be, else
// closed.
void ReleaseBackend(std::unique_ptr<Backend> backend) noexcept;
// Closes every idle backend of this process.
void CloseIdleBackends() noexcept;

}  // namespace detail
}  // namespace configstore

#endif  // CONFIGSTORE_IDLE_BACKENDS_H
