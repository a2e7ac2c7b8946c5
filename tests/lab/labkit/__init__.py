"""A virtual machine with Debian's own kernel and emulated storage, and our programs inside it."""
