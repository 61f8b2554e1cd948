"""k52console: the camera in a browser (aiohttp)."""
from .app import main, make_app

__all__ = ["main", "make_app"]
