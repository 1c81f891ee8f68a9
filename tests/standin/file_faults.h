// Failing of file operations in unit tests and in opened modules. The program's own definitions of
// the C library's functions stand before those of the C library (and of a sanitizer), act on paths
// and streams below one prefix, and pass everything else on.
#pragma once

#include <string>
#include <vector>

namespace standin {

// Operations: "fopen", "fclose", "getline", "fgets", "fread", "fprintf", "fputs", "fputc",
// "fwrite", "fflush", "fsync", "fchmod", "fstat", "rename", "remove", "unlink", "access", "stat".
// getline stands for getdelim too, fprintf for vfprintf, fopen for freopen's failure-free sibling
// fopen64. stat and fstat are the kernel's calls by way of syscall: tests look by the C library's
// functions and aren't counted. "any" stands for all of them.
//
// Compilers turn some calls into others (fprintf of a plain text into fputs or fwrite, fputs of one
// character into fputc), so tests that mean "a write" should use "write", which stands for fprintf,
// fputs, fputc and fwrite together.
//
// What a failing operation does, beside setting errno:
//   fopen      null; nothing is opened or cut off
//   fclose     EOF; the stream is closed, and text still in its buffer is lost
//   getline, fgets, fread    end of data with the stream's error mark set
//   writes     nothing goes into the stream; the error mark is set
//   fflush     EOF with the error mark set; the text stays in the buffer
//   fsync, fchmod, fstat, rename, remove, unlink, access, stat    -1; nothing is done

// Watches all paths that begin with the prefix, and counts from zero. An empty prefix stops it.
// A test's own operations count too, std::fstream's among them: read counts before looking into
// files, or stop watching first.
void watch_files(const std::string &prefix);

// Number of watched operations of that name since watch_files, failed ones included.
int file_ops(const std::string &op);

// Makes the n-th operation of that name from now fail with this errno, once; n counts from 1.
void fail_file_op(const std::string &op, int n, int error);

// Makes every operation of that name from the n-th on fail.
void fail_file_ops_from(const std::string &op, int n, int error);

// Drops what the two above asked for.
void stop_failing_files();

// The watched operations in order, as "fopen /path/of/it", "fwrite", "rename /a /b".
std::vector<std::string> file_history();

// Watched streams that are open now: a test's end should find none.
int open_streams();

}  // namespace standin
