"""Sphinx configuration of the pages in this folder: `make docs` writes HTML to build/docs, with warnings as errors.

Pages are Markdown (MyST). Docstrings are plain text for a terminal: paragraphs, names in backticks and indented
examples. The hook at the end marks the examples as code, which is all that reStructuredText wants beyond that.
"""

import tarvopy

project = "tarvopy"
author = "the tarvopy developers"
version = release = tarvopy.__version__

extensions = ["myst_parser", "sphinx.ext.autodoc"]
root_doc = "index"
html_theme = "furo"
html_title = f"tarvopy {release}"
html_show_copyright = False
html_copy_source = False

myst_heading_anchors = 3
default_role = "code"  # what stands in single backticks
add_module_names = False
autodoc_member_order = "bysource"
autodoc_typehints = "none"  # native classes have none; the stubs have all


def mark_examples(app, what, name, obj, options, lines):
    """Puts `::` before each indented block of a docstring, in place."""
    marked, before, in_example = [], "", False
    for line in lines:
        indented = line.startswith("    ")
        if indented and not in_example and not before.strip():
            marked += ["::", ""]
        in_example = indented or (in_example and not line.strip())
        marked.append(line)
        before = line
    lines[:] = marked


def setup(app):
    app.connect("autodoc-process-docstring", mark_examples)
