"""What every topic of the benchmark uses to run programs and to show figures."""
