"""What kdr3-plot is made of. Each module stands on those that it imports; none knows the program but by its files."""
