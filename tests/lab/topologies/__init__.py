"""One file per topology: what is attached to the guest, and what must be said about it."""
