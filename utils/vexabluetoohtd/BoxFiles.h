// SPDX-License-Identifier: MIT
#pragma once

#include <fstream>
#include <string>

/**
 * Opens the small files through which the daemon and the rest of the box communicate.
 *
 * Anybody can create files in their folder. So opening never blocks, whatever is at a path (a FIFO, a
 * terminal, a leased file), and nothing is written through a link or into another user's file. Failures are
 * silent. The functions keep no state; any thread may call them.
 */
namespace box_files
{

/// Whether `path` can be opened for reading, which is all that a flag needs. A FIFO can, a socket can't.
bool isReadable(const char* path);

/// The decimal number that the file `path` begins with, read as a stream reads an int: white space is
/// skipped, a number that is too large gives the nearest int, and text that isn't a number gives 0. Returns
/// `otherwise` if the file can't be read or holds only white space. Looks at the first 256 bytes, with a
/// single read.
int readNumber(const char* path, int otherwise);

/// Replaces the content of `path` with `line` and a newline, in place: readers may keep the file open.
/// Anything there other than a regular file of the daemon's own user with a single hard link is removed and
/// created anew. A folder stays, and nothing is written.
void writeLine(const std::string& line, const std::string& path);

/// Opens a regular file for reading and follows links; for anything else the buffer stays closed.
std::filebuf openRegularFile(const std::string& path);

} // namespace box_files
