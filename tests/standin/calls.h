// Calls that the module makes into the host: counted by name, and made to fail on request.
#pragma once

#include <string>
#include <vector>

namespace standin {

// Names known: every function of host/imports.h under its own name, "pv_register_api",
// "explode_params" (on whatever road), and the RPC operations as "rpc.fault", "rpc.send",
// "rpc.add", "rpc.scan", "rpc.rpl_printf", "rpc.struct_add", "rpc.array_add", "rpc.struct_printf".
// Only calls from outside the stand-in count: pv_printf reading a value is no pv_get_spec_value.
//
// Some calls can also be made to succeed with nothing in their hands, each under a name of its own
// that counts what the call gives: "pv_printf.length" (a length of -1), "get_str_fparam.text",
// "rpc.scan.text" (one per text read; all without a text), "rpc.add.container" (one per container;
// none opened).

// Number of calls since the last reset_calls or reset, failed ones included.
int calls(const std::string &name);

// Makes the n-th call from now fail, once; n counts from 1. What failing means is told at each
// function's own header; for most it is the result that the host gives for its own failures.
void fail_call(const std::string &name, int n);

// Makes every call from the n-th on fail.
void fail_calls_from(const std::string &name, int n);

// Drops all that fail_call and fail_calls_from asked for; the counts stay.
void stop_failing_calls();

// Forgets counts and failures.
void reset_calls();

// Counts one call; true if it has to fail. For the stand-in's own functions.
bool call_fails(const char *name);

// Has a function called ahead of each step that the stand-in sees: each call of the module's into
// the host, allocations and releases among them, and each watched file operation. For tests that
// look at what is done between two of them, or end the process there. Null, as at first, for none.
void call_ahead_of_steps(void (*step)());
void ahead_of_step();

// Calls made in a way that a real host doesn't survive or doesn't allow, in words: a fix-up slot
// that isn't part of a parameter record, an operation of the pv record that the module may not
// use, negative lengths. Tests of the module expect none.
std::vector<std::string> misuses();
void note_misuse(const std::string &text);
void reset_misuses();

}  // namespace standin
