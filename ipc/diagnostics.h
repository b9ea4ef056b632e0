// The transport's one diagnostic reporter. The transport has no logger of its
// own (it sits below the log facility): its few diagnostics go to the
// standard streams, each as one write, so lines of different threads do not
// mix. The legacy texts (the msgsnd/msgrcv failures) keep their exact form.
#ifndef PAVO_IPC_DIAGNOSTICS_H
#define PAVO_IPC_DIAGNOSTICS_H

namespace pavo::ipc {

enum class Stream { kOut, kErr };

// Formats one line and writes it to `stream`. Never fails its caller; may be
// called from any thread.
void report(Stream stream, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Test hook (not exported): routes every line to `sink` instead of the
// standard streams (null restores them). The fuzzer silences the reporter so.
using DiagnosticSink = void (*)(Stream stream, const char* line);
void set_diagnostic_sink_for_testing(DiagnosticSink sink);

}  // namespace pavo::ipc

#endif  // PAVO_IPC_DIAGNOSTICS_H
