// Keeps the emulator library non-empty while it has no sources of its own.
