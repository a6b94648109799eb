#pragma once

/// @file
/// The result of an operation.

/// The result of an operation: 0 is success, every other value names a failure.
///
/// A failure code is a 32-bit value of the form 0xFE, one byte of module number, two bytes of
/// error number, held zero-extended in a signed 64-bit integer. Each module declares its codes as
/// an enumeration of underlying type `long`, so that codes and results compare without casts.
using STATUSCODE = long;
