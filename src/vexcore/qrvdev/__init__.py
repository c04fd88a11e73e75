"""Device drivers of the vexcore SDK and their table manager."""
