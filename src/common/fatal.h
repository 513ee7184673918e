#pragma once

#include <QString>

// Malformed input from the POS and broken internal assumptions end the service on
// purpose: it trusts its single POS client and has no error reply, and the supervisor
// restarts it. Prints "fatal: <reason>" on standard error and ends the process at once
// with a non-zero status.
[[noreturn]] void fatalStop(const QString &reason);
