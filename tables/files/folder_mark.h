// Tells other programs that a server uses the tables' files: a shared lock (flock) on the folder of
// the main files, which is there as long as any of the server's processes is. tarn-memdb-convert
// replaces no file beside it.
#pragma once

// Takes the lock. A folder that can't be locked is used all the same. Runs ahead of the fork, so
// that all processes have the lock; the registry has the schema's directories.
void mark_folder();

// Takes it for a server that couldn't have it when it started, since the other program was at work.
// For any of its processes, now and then.
void renew_folder_mark();

// Gives it back, for this process. Nothing if there is none.
void unmark_folder();
