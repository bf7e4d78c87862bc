namespace quil {}
