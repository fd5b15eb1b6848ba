// Placeholder until this file's code lands.
