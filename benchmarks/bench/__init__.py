"""What the measuring programs share."""
