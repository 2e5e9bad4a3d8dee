// diagnosis.h - the device's crash-diagnosis library.
#ifndef MANAGER_SVC_DIAGNOSIS_H
#define MANAGER_SVC_DIAGNOSIS_H

typedef void (*diagnosis_handler)(int sig);

// Names the file that the library's own handler writes its records to
// (null or "": none). Called before the handlers are installed, on the
// only thread there is.
void diagnosis_set_crash_log(const char* path);

extern "C" {
// Installs a crash handler for `sig`. With a null handler the library's
// own applies: it writes a record (program name, signal, backtrace) to the
// crash log with async-signal-safe calls only, then re-raises the signal
// with its default action so that a core dump is still made.
// Returns 0, or -1 when the handler could not be installed.
int diagnosis_com_install_siganl_handler(int sig, const char* program_name,
                                         diagnosis_handler handler);
}

#endif
