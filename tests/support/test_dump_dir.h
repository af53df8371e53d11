// test_dump_dir.h - the fresh folder each test process hands the library for its raw dumps.
#ifndef VMKTR_TESTS_TEST_DUMP_DIR_H
#define VMKTR_TESTS_TEST_DUMP_DIR_H

// The folder (created at start-up under $TMPDIR or /tmp, exported as VM_HOST_DUMP_DIR and
// removed with its files at exit), so that no test reads what an earlier run left behind.
const char* vmktr_test_dump_dir(void);

// Suites name the folder by this macro.
#define VMKTR_DUMP_DIR_FOR_TESTS (vmktr_test_dump_dir())

#endif  // VMKTR_TESTS_TEST_DUMP_DIR_H
