// An rpc_t whose operations record what a command does.
#include "tests/standin/rpc.h"

#include <cstdarg>
#include <deque>

#include "tests/standin/calls.h"
#include "tests/standin/host.h"
#include "tests/standin/text.h"
#include "tests/standin/whole_text.h"

namespace standin {
namespace {

rpc_transport transport = rpc_transport::ctl;

struct context {
  std::vector<value> arguments;
  size_t next = 0;
  rpc_reply reply;
  std::deque<rpc_container> containers;  // their addresses are the handles
  std::optional<rpc_fault> prepared;     // sent if the command replies nothing
};

context *of(void *ctx) { return static_cast<context *>(ctx); }

// The command that runs, for operations that get only a container's handle.
context *current;

rpc_container *container(void *handle) {
  if (current != nullptr)
    for (rpc_container &known : current->containers)
      if (&known == handle) return &known;
  note_misuse("an RPC operation on something that isn't a container of this reply");
  return nullptr;
}

bool knows(char format) {
  return format == '[' || format == '{' ||
         (format == '(' && get_host_kind() == host_kind::ninth_operation);
}

void raise(context *ctx, int code, const std::string &text) {
  ctx->reply.faults.push_back({code, text});
  if (transport == rpc_transport::jsonrpcs || !ctx->reply.fault) ctx->reply.fault = {code, text};
}

void rpc_fault_op(void *ctx, int code, const char *format, ...) {
  call_fails("rpc.fault");
  va_list arguments;
  va_start(arguments, format);
  expect_whole_text(format, arguments);
  raise(of(ctx), code, print_text(format, arguments));
  va_end(arguments);
}

int rpc_send_op(void *ctx) {
  if (call_fails("rpc.send")) return -1;
  of(ctx)->reply.sent = true;
  return 0;
}

// One value of an add operation as text; false if the format isn't known.
bool take_text(char format, va_list *arguments, std::string *out) {
  if (format == 's') {
    const char *text = va_arg(*arguments, const char *);
    *out = text != nullptr ? text : "<null string>";
  } else if (format == 'S') {
    const str *text = va_arg(*arguments, const str *);
    *out = text != nullptr && text->s != nullptr ? std::string(view_of(*text)) : "<null string>";
  } else if (format == 'd') {
    *out = std::to_string(va_arg(*arguments, int));
  } else if (format == 'u') {
    *out = std::to_string(va_arg(*arguments, unsigned int));
  } else {
    return false;
  }
  return true;
}

int unknown_format(context *ctx, char format) {
  if (transport == rpc_transport::ctl)
    raise(ctx, 500,
          std::string("Internal server error: invalid formatting character '") + format + "'");
  return -1;
}

int rpc_add_op(void *ctx, const char *format, ...) {
  if (call_fails("rpc.add")) return -1;
  int result = 0;
  va_list arguments;
  va_start(arguments, format);
  for (; *format != '\0' && result == 0; ++format) {
    std::string text;
    if (*format == '(' || *format == '[' || *format == '{') {
      void **handle = va_arg(arguments, void **);
      if (call_fails("rpc.add.container")) continue;
      if (knows(*format)) {
        of(ctx)->containers.push_back({std::string(1, *format), {}, {}});
        *handle = &of(ctx)->containers.back();
      } else {
        result = unknown_format(of(ctx), *format);
      }
    } else if (take_text(*format, &arguments, &text)) {
      of(ctx)->reply.lines.push_back(text);
    } else {
      result = unknown_format(of(ctx), *format);
    }
  }
  va_end(arguments);
  return result;
}

// Reads one item; false if there is none of the wanted type.
bool scan_item(context *ctx, char format, bool convert, va_list *arguments) {
  static std::string digits;
  static char warning[] = "text of a scan that found nothing: look at its result";
  value *item = ctx->next < ctx->arguments.size() ? &ctx->arguments[ctx->next] : nullptr;
  const bool found = item != nullptr && (item->type == value::kind::text ||
                                         (item->type == value::kind::number && convert));
  str text = {};
  if (found) {
    ++ctx->next;
    if (item->type == value::kind::number) digits = std::to_string(item->number);
    text = str_of(item->type == value::kind::number ? digits : item->text);
    if (call_fails("rpc.scan.text")) text = {nullptr, 0};
  } else if (transport == rpc_transport::ctl) {
    text = str_of(warning);
  } else if (item == nullptr) {
    return false;
  }
  if (format == 's')
    *va_arg(*arguments, char **) = text.s;
  else
    *va_arg(*arguments, str *) = text;
  return found;
}

int rpc_scan_op(void *ctx, const char *format, ...) {
  context *command = of(ctx);
  if (call_fails("rpc.scan")) {
    command->reply.scans.push_back(0);
    return 0;
  }
  int read = 0;
  bool optional = false, convert = false, failed = false;
  command->prepared.reset();
  va_list arguments;
  va_start(arguments, format);
  for (; *format != '\0' && !failed; ++format) {
    if (*format == '*') {
      optional = true;
    } else if (*format == '.') {
      convert = true;
    } else if (*format == 's' || *format == 'S') {
      failed = !scan_item(command, *format, convert, &arguments);
      if (!failed) ++read;
      convert = false;
    } else {
      note_misuse(std::string("scan with a format that the stand-in doesn't know: ") + *format);
      failed = true;
    }
  }
  va_end(arguments);
  const bool ended = command->next >= command->arguments.size();
  int result = failed && !(optional && ended) ? -read : read;
  if (result != read || (failed && read == 0 && !optional)) {
    command->prepared = {400, "error at parameter " + std::to_string(command->next)};
  }
  command->reply.scans.push_back(result);
  return result;
}

int rpc_printf_op(void *ctx, const char *format, ...) {
  if (call_fails("rpc.rpl_printf")) return -1;
  va_list arguments;
  va_start(arguments, format);
  of(ctx)->reply.lines.push_back(print_text(format, arguments));
  va_end(arguments);
  return 0;
}

int rpc_array_add_op(void *handle, const char *format, ...) {
  if (call_fails("rpc.array_add")) return -1;
  rpc_container *into = container(handle);
  if (into == nullptr) return -1;
  int result = 0;
  va_list arguments;
  va_start(arguments, format);
  for (; *format != '\0' && result == 0; ++format) {
    std::string text;
    if (take_text(*format, &arguments, &text))
      into->texts.push_back(text);
    else
      result = -1;
  }
  va_end(arguments);
  return result;
}

int rpc_struct_add_op(void *handle, const char *format, ...) {
  if (call_fails("rpc.struct_add")) return -1;
  rpc_container *into = container(handle);
  if (into == nullptr) return -1;
  int result = 0;
  va_list arguments;
  va_start(arguments, format);
  for (; *format != '\0' && result == 0; ++format) {
    const char *name = va_arg(arguments, const char *);
    std::string text;
    if (take_text(*format, &arguments, &text))
      into->members.emplace_back(name != nullptr ? name : "", text);
    else
      result = -1;
  }
  va_end(arguments);
  return result;
}

int rpc_struct_printf_op(void *handle, const char *name, const char *format, ...) {
  if (call_fails("rpc.struct_printf")) return -1;
  rpc_container *into = container(handle);
  if (into == nullptr) return -1;
  va_list arguments;
  va_start(arguments, format);
  into->members.emplace_back(name != nullptr ? name : "", print_text(format, arguments));
  va_end(arguments);
  return 0;
}

int rpc_struct_scan_op(void *, const char *, ...) {
  note_misuse("struct_scan");
  return -1;
}

int rpc_capabilities_op(void *) { return 0; }

}  // namespace

void set_rpc_transport(rpc_transport wanted) { transport = wanted; }

rpc_reply rpc_run(rpc_function handler, const std::vector<value> &arguments) {
  rpc_t operations = {
      rpc_fault_op,         rpc_send_op,         rpc_add_op,       rpc_scan_op,
      rpc_printf_op,        rpc_struct_add_op,   rpc_array_add_op, rpc_struct_scan_op,
      rpc_struct_printf_op, rpc_capabilities_op, nullptr,          nullptr};
  context ctx;
  ctx.arguments = arguments;
  ctx.reply.found = true;
  context *const outer = current;
  current = &ctx;
  handler(&operations, &ctx);
  current = outer;
  ctx.reply.containers.assign(ctx.containers.begin(), ctx.containers.end());
  const bool nothing = ctx.reply.lines.empty() && ctx.reply.containers.empty();
  if (transport == rpc_transport::ctl && !ctx.reply.fault && !ctx.reply.sent && nothing)
    ctx.reply.fault = ctx.prepared;
  return ctx.reply;
}

const rpc_export_t *rpc_find(const std::string &name) {
  for (const rpc_export_t *row : rpc_tables())
    for (; row->name != nullptr; ++row)
      if (name == row->name) return row;
  return nullptr;
}

std::vector<std::string> rpc_names() {
  std::vector<std::string> out;
  for (const rpc_export_t *row : rpc_tables())
    for (; row->name != nullptr; ++row) out.emplace_back(row->name);
  return out;
}

rpc_reply rpc_call(const std::string &name, const std::vector<value> &arguments) {
  const rpc_export_t *row = rpc_find(name);
  return row != nullptr && row->function != nullptr ? rpc_run(row->function, arguments)
                                                    : rpc_reply();
}

void reset_rpc() { transport = rpc_transport::ctl; }

}  // namespace standin
