// Start and stop of the module, as the host calls them.
#pragma once

// Builds everything, in the host's main process before it forks. 0, or -1 with the reason logged,
// at which the host gives up its start.
int mod_init();

// Called in each process after the fork. Always 0: what a process needs stands since mod_init.
int child_init(int rank);

// Stores what changed and frees everything, after a start that failed at any step too.
void mod_destroy();
