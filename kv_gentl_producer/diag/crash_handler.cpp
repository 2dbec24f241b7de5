// Crash handler: a text dump of the crashing process, then the default action.
//
// Everything reached from the signal handler is async-signal-safe: no heap, no
// stdio, no locale or time-zone code. Numbers are formatted by the small helpers
// below, the local time comes from time() plus the UTC offset captured when the
// handler was installed (so a daylight-saving change after installation shifts
// the file name by that change), and the backtrace uses backtrace(), whose
// unwinder library is loaded by a first call at installation.
//
// The alternate signal stack is per thread. It is set up for the thread that
// installs the handler; other threads run the handler on their own stack, so a
// thread other than that one that overflows its stack dies without a dump.

#include "diag/crash_handler.h"

#include <execinfo.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ucontext.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>

#include "diag/log.h"

namespace pelorin::diag {
namespace {

constexpr int kCrashSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
constexpr size_t kAltStackSize = 64 * 1024;
constexpr int kMaxFrames = 64;

alignas(16) char g_alt_stack[kAltStackSize];

std::mutex g_install_mutex;
std::atomic<bool> g_installed{false};
std::atomic<long> g_utc_offset_seconds{0};  // local time = UTC + this, captured at install
std::atomic<pid_t> g_dumping_thread{0};     // thread writing the dump, 0 when none

// ---- async-signal-safe formatting ----------------------------------------

struct LocalTime {
    int64_t year;
    unsigned month, day, hour, minute, second;
};

// Proleptic Gregorian date of a day count since 1970-01-01.
void CivilFromDays(int64_t days, int64_t &year, unsigned &month, unsigned &day) {
    days += 719468;  // shift the epoch to 0000-03-01
    const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const auto day_of_era = static_cast<unsigned>(days - era * 146097);
    const unsigned year_of_era =
        (day_of_era - day_of_era / 1460 + day_of_era / 36524 - day_of_era / 146096) / 365;
    const unsigned day_of_year = day_of_era - (365 * year_of_era + year_of_era / 4 - year_of_era / 100);
    const unsigned month_index = (5 * day_of_year + 2) / 153;  // March = 0
    day = day_of_year - (153 * month_index + 2) / 5 + 1;
    month = month_index < 10 ? month_index + 3 : month_index - 9;
    year = static_cast<int64_t>(year_of_era) + era * 400 + (month <= 2 ? 1 : 0);
}

LocalTime BreakDown(int64_t utc_seconds, int64_t offset_seconds) {
    const int64_t local = utc_seconds + offset_seconds;
    int64_t days = local / 86400;
    int64_t rest = local % 86400;
    if (rest < 0) {
        rest += 86400;
        --days;
    }
    LocalTime t{};
    CivilFromDays(days, t.year, t.month, t.day);
    t.hour = static_cast<unsigned>(rest / 3600);
    t.minute = static_cast<unsigned>(rest % 3600 / 60);
    t.second = static_cast<unsigned>(rest % 60);
    return t;
}

// Fixed-capacity text builder; drops what does not fit and remembers it did.
class TextBuffer {
public:
    TextBuffer(char *data, size_t capacity) : data_(data), capacity_(capacity) {}

    void Char(char c) {
        if (length_ + 1 < capacity_) {
            data_[length_++] = c;
        } else {
            overflow_ = true;
        }
    }
    void Str(const char *s) {
        while (*s != '\0') Char(*s++);
    }
    // Decimal, at least `width` digits (zero padded).
    void Dec(int64_t value, int width = 1) {
        uint64_t magnitude = static_cast<uint64_t>(value);
        if (value < 0) {
            Char('-');
            magnitude = ~magnitude + 1;
        }
        Unsigned(magnitude, width);
    }
    void Unsigned(uint64_t value, int width = 1) {
        char digits[24];
        int n = 0;
        do {
            digits[n++] = static_cast<char>('0' + value % 10);
            value /= 10;
        } while (value != 0);
        while (n < width && n < static_cast<int>(sizeof digits)) digits[n++] = '0';
        while (n > 0) Char(digits[--n]);
    }
    // "0x" and 16 hex digits.
    void Hex(uint64_t value) {
        static constexpr char kDigits[] = "0123456789abcdef";
        Str("0x");
        for (int shift = 60; shift >= 0; shift -= 4) Char(kDigits[(value >> shift) & 0xF]);
    }
    size_t length() const { return length_; }
    bool overflow() const { return overflow_; }
    void Clear() { length_ = 0; }
    const char *data() const { return data_; }

private:
    char *data_;
    size_t capacity_;
    size_t length_ = 0;
    bool overflow_ = false;
};

void WriteAll(int fd, const char *data, size_t length) {
    while (length > 0) {
        const ssize_t written = ::write(fd, data, length);
        if (written < 0) {
            if (errno == EINTR) continue;
            return;  // disk full or similar: the rest of the dump is lost
        }
        data += written;
        length -= static_cast<size_t>(written);
    }
}

// Buffered writer of the dump file.
class DumpWriter {
public:
    explicit DumpWriter(int fd) : fd_(fd), text_(buffer_, sizeof buffer_) {}
    ~DumpWriter() { Flush(); }

    TextBuffer &text() {
        if (text_.length() > sizeof buffer_ - 128) Flush();  // room for the next item
        return text_;
    }
    void Flush() {
        WriteAll(fd_, text_.data(), text_.length());
        text_.Clear();
    }
    int fd() const { return fd_; }

private:
    int fd_;
    char buffer_[1024];
    TextBuffer text_;
};

const char *SignalName(int sig) {
    switch (sig) {
    case SIGSEGV: return "SIGSEGV";
    case SIGBUS: return "SIGBUS";
    case SIGILL: return "SIGILL";
    case SIGFPE: return "SIGFPE";
    case SIGABRT: return "SIGABRT";
    default: return "unknown signal";
    }
}

const char *CodeName(int sig, int code) {
    switch (code) {
    case SI_USER: return "SI_USER";
    case SI_KERNEL: return "SI_KERNEL";
    case SI_QUEUE: return "SI_QUEUE";
    case SI_TKILL: return "SI_TKILL";
    default: break;
    }
    if (sig == SIGSEGV) {
        if (code == SEGV_MAPERR) return "SEGV_MAPERR: address not mapped";
        if (code == SEGV_ACCERR) return "SEGV_ACCERR: access not permitted";
    } else if (sig == SIGBUS) {
        if (code == BUS_ADRALN) return "BUS_ADRALN: misaligned address";
        if (code == BUS_ADRERR) return "BUS_ADRERR: no such physical address";
        if (code == BUS_OBJERR) return "BUS_OBJERR: object hardware error";
    } else if (sig == SIGILL) {
        if (code == ILL_ILLOPC) return "ILL_ILLOPC: illegal opcode";
        if (code == ILL_ILLOPN) return "ILL_ILLOPN: illegal operand";
        if (code == ILL_ILLADR) return "ILL_ILLADR: illegal addressing mode";
        if (code == ILL_ILLTRP) return "ILL_ILLTRP: illegal trap";
        if (code == ILL_PRVOPC) return "ILL_PRVOPC: privileged opcode";
        if (code == ILL_PRVREG) return "ILL_PRVREG: privileged register";
        if (code == ILL_COPROC) return "ILL_COPROC: coprocessor error";
        if (code == ILL_BADSTK) return "ILL_BADSTK: internal stack error";
    } else if (sig == SIGFPE) {
        if (code == FPE_INTDIV) return "FPE_INTDIV: integer divide by zero";
        if (code == FPE_INTOVF) return "FPE_INTOVF: integer overflow";
        if (code == FPE_FLTDIV) return "FPE_FLTDIV: floating-point divide by zero";
        if (code == FPE_FLTOVF) return "FPE_FLTOVF: floating-point overflow";
        if (code == FPE_FLTUND) return "FPE_FLTUND: floating-point underflow";
        if (code == FPE_FLTRES) return "FPE_FLTRES: floating-point inexact result";
        if (code == FPE_FLTINV) return "FPE_FLTINV: invalid floating-point operation";
        if (code == FPE_FLTSUB) return "FPE_FLTSUB: subscript out of range";
    }
    return "other";
}

// ---- the dump ----------------------------------------------------------

void WriteHeader(DumpWriter &out, int sig, const siginfo_t *info, int64_t now, int64_t offset) {
    const LocalTime t = BreakDown(now, offset);
    TextBuffer &b = out.text();
    b.Str("Pelorin Cxp crash dump\n");
    b.Str("time: ");
    b.Dec(t.year, 4);
    b.Char('-');
    b.Unsigned(t.month, 2);
    b.Char('-');
    b.Unsigned(t.day, 2);
    b.Char(' ');
    b.Unsigned(t.hour, 2);
    b.Char(':');
    b.Unsigned(t.minute, 2);
    b.Char(':');
    b.Unsigned(t.second, 2);
    b.Str(" local (UTC");
    b.Char(offset < 0 ? '-' : '+');
    const int64_t abs_offset = offset < 0 ? -offset : offset;
    b.Unsigned(static_cast<uint64_t>(abs_offset / 3600), 2);
    b.Char(':');
    b.Unsigned(static_cast<uint64_t>(abs_offset % 3600 / 60), 2);
    b.Str(")\n");

    TextBuffer &p = out.text();
    p.Str("pid: ");
    p.Dec(::getpid());
    p.Str("\nthread: ");
    p.Dec(::gettid());
    p.Str("\nsignal: ");
    p.Dec(sig);
    p.Str(" (");
    p.Str(SignalName(sig));
    p.Str(")\n");

    TextBuffer &c = out.text();
    if (info == nullptr) {
        c.Str("no signal information\n");
        return;
    }
    c.Str("si_code: ");
    c.Dec(info->si_code);
    c.Str(" (");
    c.Str(CodeName(sig, info->si_code));
    c.Str(")\n");
    TextBuffer &s = out.text();
    if (info->si_code > 0) {
        // Raised by the kernel for a faulting instruction: si_addr is meaningful.
        s.Str("fault address: ");
        s.Hex(reinterpret_cast<uintptr_t>(info->si_addr));
    } else {
        // Sent by kill/tgkill/sigqueue (abort() among them): the sender is known instead.
        s.Str("sent by pid: ");
        s.Dec(info->si_pid);
    }
    s.Char('\n');
}

void WriteRegisters(DumpWriter &out, const void *context) {
    out.text().Str("\nregisters:\n");
#if defined(__x86_64__)
    if (context == nullptr) {
        out.text().Str("  not available\n");
        return;
    }
    const auto *uc = static_cast<const ucontext_t *>(context);
    const greg_t *gregs = uc->uc_mcontext.gregs;
    struct Register {
        const char *name;
        int index;
    };
    static constexpr Register kRegisters[] = {
        {"RIP", REG_RIP}, {"RSP", REG_RSP}, {"RBP", REG_RBP}, {"RAX", REG_RAX},
        {"RBX", REG_RBX}, {"RCX", REG_RCX}, {"RDX", REG_RDX}, {"RSI", REG_RSI},
        {"RDI", REG_RDI}, {"R8 ", REG_R8},  {"R9 ", REG_R9},  {"R10", REG_R10},
        {"R11", REG_R11}, {"R12", REG_R12}, {"R13", REG_R13}, {"R14", REG_R14},
        {"R15", REG_R15}, {"EFL", REG_EFL}, {"ERR", REG_ERR}, {"TRP", REG_TRAPNO},
        {"CR2", REG_CR2},
    };
    for (const Register &reg : kRegisters) {
        TextBuffer &b = out.text();
        b.Str("  ");
        b.Str(reg.name);
        b.Char(' ');
        b.Hex(static_cast<uint64_t>(gregs[reg.index]));
        b.Char('\n');
    }
#else
    (void)context;
    out.text().Str("  not recorded on this architecture\n");
#endif
}

void WriteMemoryMap(DumpWriter &out) {
    out.text().Str("\nmemory map (/proc/self/maps):\n");
    out.Flush();
    const int maps = ::open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    if (maps < 0) {
        out.text().Str("  not readable\n");
        return;
    }
    char chunk[4096];
    for (;;) {
        const ssize_t got = ::read(maps, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        WriteAll(out.fd(), chunk, static_cast<size_t>(got));
    }
    ::close(maps);
}

void WriteBacktrace(DumpWriter &out) {
    // Last: unwinding a corrupted stack is the step most likely to fault again,
    // and what was written before it is then already in the file.
    void *frames[kMaxFrames];
    const int count = ::backtrace(frames, kMaxFrames);
    TextBuffer &b = out.text();
    b.Str("\nbacktrace (");
    b.Dec(count);
    b.Str(" frames, innermost first):\n");
    out.Flush();
    if (count > 0) ::backtrace_symbols_fd(frames, count, out.fd());
}

void WriteDump(int sig, const siginfo_t *info, const void *context) {
    const int64_t now = static_cast<int64_t>(::time(nullptr));
    const int64_t offset = g_utc_offset_seconds.load(std::memory_order_relaxed);
    char name[64];
    if (!FormatCrashDumpName(now, offset, name, sizeof name)) return;
    const int fd = ::open(name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) return;  // no dump, the process still ends below
    {
        DumpWriter out(fd);
        WriteHeader(out, sig, info, now, offset);
        WriteRegisters(out, context);
        WriteMemoryMap(out);
        WriteBacktrace(out);
        out.text().Str("\nend of dump\n");
    }
    ::close(fd);
}

// Lets the default action end the process with the same signal.
void DieBySignal(int sig) {
    struct sigaction dfl {};
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    ::sigaction(sig, &dfl, nullptr);
    sigset_t unblock;
    sigemptyset(&unblock);
    sigaddset(&unblock, sig);
    ::pthread_sigmask(SIG_UNBLOCK, &unblock, nullptr);
    ::raise(sig);
    // Not reached for these signals. Should it return anyway, returning from the
    // handler re-runs a faulting instruction, which now meets the default action.
}

void CrashSignalHandler(int sig, siginfo_t *info, void *context) {
    const pid_t self = ::gettid();
    pid_t expected = 0;
    if (!g_dumping_thread.compare_exchange_strong(expected, self)) {
        if (expected != self) {
            // Another thread is writing the dump and will end the process; give
            // it a few seconds before ending it from here.
            for (int i = 0; i < 100; ++i) {
                struct timespec nap = {0, 50 * 1000 * 1000};
                ::nanosleep(&nap, nullptr);
            }
        }
        DieBySignal(sig);
        return;
    }
    WriteDump(sig, info, context);
    DieBySignal(sig);
}

}  // namespace

bool FormatCrashDumpName(int64_t utc_seconds, int64_t utc_offset_seconds, char *out,
                         size_t size) {
    if (out == nullptr || size == 0) return false;
    char scratch[64];
    TextBuffer b(scratch, sizeof scratch);
    const LocalTime t = BreakDown(utc_seconds, utc_offset_seconds);
    b.Str("Test_(");
    b.Dec(t.year, 4);
    b.Char('-');
    b.Unsigned(t.month, 2);
    b.Char('-');
    b.Unsigned(t.day, 2);
    b.Char(' ');
    b.Unsigned(t.hour, 2);
    b.Char('_');
    b.Unsigned(t.minute, 2);
    b.Char('_');
    b.Unsigned(t.second, 2);
    b.Str(").dmp");
    if (b.overflow() || b.length() + 1 > size) return false;
    for (size_t i = 0; i < b.length(); ++i) out[i] = b.data()[i];
    out[b.length()] = '\0';
    return true;
}

}  // namespace pelorin::diag

void InstallCrashHandler() {
    using namespace pelorin::diag;
    std::lock_guard<std::mutex> hold(g_install_mutex);
    if (g_installed.load(std::memory_order_acquire)) return;

    // The handler cannot consult the time-zone database; remember the offset now.
    ::tzset();
    const time_t now = ::time(nullptr);
    struct tm local {};
    if (::localtime_r(&now, &local) != nullptr) {
        g_utc_offset_seconds.store(local.tm_gmtoff, std::memory_order_relaxed);
    } else {
        LOG_ANY(kWarn, "crash handler: local time unavailable, dump names use UTC\n");
    }

    // The first backtrace() loads the unwinder library (a dlopen, not allowed in
    // a signal handler); later calls only walk the stack.
    void *warm_up[2];
    (void)::backtrace(warm_up, 2);

    // A handler for a stack overflow needs a stack of its own. Keep one that this
    // thread already has (a sanitizer or the application may have set it up).
    stack_t current {};
    if (::sigaltstack(nullptr, &current) != 0 || (current.ss_flags & SS_DISABLE) != 0) {
        stack_t alt {};
        alt.ss_sp = g_alt_stack;
        alt.ss_size = sizeof g_alt_stack;
        alt.ss_flags = 0;
        if (::sigaltstack(&alt, nullptr) != 0) {
            LOG_ANY(kWarn, "crash handler: no alternate signal stack (%s), a stack overflow "
                    "will not be dumped\n", std::strerror(errno));
        }
    }

    struct sigaction action {};
    action.sa_sigaction = CrashSignalHandler;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    // A fault while the dump is being written finds its signal blocked, and the
    // kernel then ends the process with that signal's default action.
    sigemptyset(&action.sa_mask);
    for (const int sig : kCrashSignals) sigaddset(&action.sa_mask, sig);
    for (const int sig : kCrashSignals) {
        if (::sigaction(sig, &action, nullptr) != 0) {
            LOG_ANY(kWarn, "crash handler: signal %d (%s) not handled: %s\n", sig, SignalName(sig),
                    std::strerror(errno));
        }
    }
    g_installed.store(true, std::memory_order_release);
}

bool CrashHandlerInstalled() { return pelorin::diag::g_installed.load(std::memory_order_acquire); }
