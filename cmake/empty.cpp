// The shared library is made of the core archive; this file only gives it a source.
