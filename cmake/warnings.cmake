# The warnings that our code is free of, for everything that a compiler of ours sees.
set(KELDA_WARNINGS
    -Wall
    -Wextra
    -Wpedantic
    -Werror
    -Wconversion
    -Wsign-conversion
    -Wshadow
    -Wformat=2
    -Wcast-qual
    -Wundef
    -Wnull-dereference)
set(KELDA_CXX_WARNINGS -Wold-style-cast -Wnon-virtual-dtor -Woverloaded-virtual)
