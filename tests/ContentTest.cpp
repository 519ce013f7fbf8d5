// The contents.
