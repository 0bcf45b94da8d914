// SPDX-License-Identifier: MIT
#pragma once

#include <fstream>
#include <string>

/**
 * How the daemon opens the small files through which it and the box talk.
 *
 * They lie where anybody may plant something. So no opening waits, whatever stands at a path (a FIFO, a
 * terminal, a leased file), and nothing is written through a link or into a file of somebody else. Every
 * failure is silent. None of it keeps state; any thread may call it.
 */
namespace box_files
{

/// Whether something that can be opened for reading stands at `path`: a flag is no more than that. A FIFO is,
/// a socket isn't.
bool isReadable(const char* path);

/// The decimal number that the file `path` begins with, read as a stream reads an int: white space is
/// skipped, a number that is too large gives the nearest int, what isn't a number gives 0. Gives `otherwise`
/// if there is nothing to be read, or nothing but white space. Looks at the first 256 bytes, by one read.
int readNumber(const char* path, int otherwise);

/// Makes `line` and a newline the content of `path`, in place: readers may keep the file open. It is a
/// regular file of the daemon's own user with one name; whatever else stands there is removed and made anew.
/// A folder stays, and nothing is written.
void writeLine(const std::string& line, const std::string& path);

/// Opens a regular file for reading, through links; anything else leaves the buffer closed.
std::filebuf openRegularFile(const std::string& path);

} // namespace box_files
