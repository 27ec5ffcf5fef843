"""Makes exported streaming models fit for serving in batches."""
