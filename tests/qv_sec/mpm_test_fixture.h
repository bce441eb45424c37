// A clean module table and configuration for each test: the table is
// process-wide and never shrinks, so tests that run in one process would
// otherwise share entries (and run out of the 8).
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "current_error.h"
#include "library_init.h"
#include "qv_cu.h"
#include "qv_sec_internal.h"
#include "test_mpm.h"
#include "test_support.h"

namespace qvtest {

inline void clear_mpm_table() {
    pthread_mutex_lock(&SEC_STATE.lock);
    for (sec_mpm_entry_desc &e : SEC_STATE.mpms.entries) {
        free(e.name);
        free(e.path);
        e.name = e.path = nullptr;
        e.state = 0;
        e.code = 0;
        e.ltime = 0;
        e.object = nullptr;  // the module stays loaded; a new load finds the same copy
    }
    SEC_STATE.mpms.count = 0;
    sec__free_config_recs(SEC_STATE.config.cfg_recs);
    SEC_STATE.config.cfg_recs = nullptr;
    SEC_STATE.config.count = 0;
    SEC_STATE.config.rtime = 0;
    pthread_mutex_unlock(&SEC_STATE.lock);
}

class MpmFixture : public ::testing::Test {
protected:
    void SetUp() override {
        sec_init_once();
        saved_fname_ = SEC_STATE.config.fname;
        clear_mpm_table();
        cu_set_no_error_1();
    }
    void TearDown() override {
        clear_mpm_table();
        if (SEC_STATE.config.fname != saved_fname_) free(SEC_STATE.config.fname);
        SEC_STATE.config.fname = saved_fname_;
    }
    // Makes the library read `contents` as its configuration file from now on.
    void configure(const std::string &contents) {
        std::string path = dir_.write("qvsec.cfg", contents);
        pthread_mutex_lock(&SEC_STATE.lock);
        if (SEC_STATE.config.fname != saved_fname_) free(SEC_STATE.config.fname);
        SEC_STATE.config.fname = strdup(path.c_str());
        // Read afresh: the records go, the table stays.
        sec__free_config_recs(SEC_STATE.config.cfg_recs);
        SEC_STATE.config.cfg_recs = nullptr;
        SEC_STATE.config.count = 0;
        SEC_STATE.config.rtime = 0;
        pthread_mutex_unlock(&SEC_STATE.lock);
    }
    // A configuration line for a module file under the build tree.
    static std::string line(int priority, const char *name, unsigned code, const char *file) {
        return std::to_string(priority) + " " + name + " " + std::to_string(code) + " " + module_path(file) + " i\n";
    }
    // Reserves (without loading) an entry for code and module file.
    sec_mpm_entry_t reserve(unsigned code, const char *file, const char *name = "qvtest") {
        std::string path = module_path(file);
        sec_config_rec_desc rec{};
        rec.code = code;
        rec.name = const_cast<char *>(name);
        rec.path = path.data();
        sec_mpm_entry_t entry = nullptr;
        pthread_mutex_lock(&SEC_STATE.lock);
        EXPECT_EQ(sec__reserve_mpm(&rec, &entry), 0u);
        pthread_mutex_unlock(&SEC_STATE.lock);
        return entry;
    }
    // Whether the entry's lock is free: a writer gets it at once.
    static bool lock_is_free(sec_mpm_entry_t e) {
        if (sec__trylock_write(&e->lock) != 0) return false;
        sec__unlock_write(&e->lock);
        return true;
    }

    TempDir dir_;
    char *saved_fname_ = nullptr;
};

}  // namespace qvtest
