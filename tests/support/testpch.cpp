// Compiles the shared test headers (testpch.h) once; it holds no code of its own.
