// Loads pelorin_cxp.cti with dlopen and resolves its exports, the way a GenTL
// consumer does. Tests call the producer only through this table.
#pragma once

#include <dlfcn.h>

#include <string>

#include "pelorin/gentl.h"
#include "pelorin/kv_api.h"

struct ProducerApi {
#define PELORIN_API_ENTRY(name) decltype(&::name) name = nullptr;
#include "producer_api_entries.inc"
#undef PELORIN_API_ENTRY

    void *library = nullptr;

    // Loads the library once per process and resolves every entry; aborts the
    // test run when the library or an entry is missing.
    static ProducerApi &get();

    // Symbol lookup for the export test.
    void *symbol(const char *name) const { return dlsym(library, name); }
};

// Path of the built library under test.
std::string cti_path();

// Runs this test binary again as a child in `mode` (see api_main.cpp), in
// directory `cwd` (empty: current), and returns its stdout; exit status in
// *status (as from waitpid).
std::string run_child(const std::string &mode, const std::string &cwd, int *status);

// Starts a child in `mode` and returns once it printed its first line (in
// *first_line) its GCInitLib result line; the caller kills and reaps it.
pid_t spawn_child(const std::string &mode, std::string *first_line);
