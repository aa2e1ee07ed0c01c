// The two ways a command of `tessitor` ends without doing its work, as the
// one catch point in main turns them into exit statuses.
#pragma once

#include <stdexcept>

namespace tessitor::cli {

/// Wrong usage (a malformed one-line form, options that do not go
/// together, a control byte in a command): message on stderr, exit status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The drive, the link or the system failed: the message (the system's
/// own text, or the front end's starting with "tessitor: ") on stderr as it
/// stands, exit status 1.
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A link or a server that could not be opened.
using ConnectError = Failure;

} // namespace tessitor::cli
