/* A library with one function, for the run-time binding tests. */
__attribute__((visibility("default"))) int probe_answer(void) { return 42; }
