"""What the whole-program tests share: frames, a private network, the probe, collectors, a model."""
