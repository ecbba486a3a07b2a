// The reader of the writer's tests serves these tests too.
#include "tests/writing/movie_probe.cpp"
