"""The first page and the texts: nothing inline, every text in every language."""

import json
import re
from html.parser import HTMLParser
from pathlib import Path

import pytest

ROOT = Path("/usr/vemo/vemoman")
LANGUAGES = ["enu", "ger", "jpn"]


def strings(language):
    """The texts of a language: {section: {key: text}}."""
    found, section = {}, None
    for line in (ROOT / f"webman/texts/{language}/strings").read_text().splitlines():
        if line.startswith("["):
            section = found.setdefault(line.strip("[]"), {})
        elif "=" in line:
            key, text = line.split(" = ", 1)
            assert key not in section and text[0] == text[-1] == '"'
            section[key] = text[1:-1]
    return found


def page_texts(language):
    return json.loads((ROOT / f"first/texts.{language}.json").read_text())


class Page(HTMLParser):
    def __init__(self):
        super().__init__()
        self.elements, self.loose = [], ""
        self.open = []
        self.feed((ROOT / "index.html").read_text())

    def handle_starttag(self, tag, attributes):
        self.elements.append((tag, dict(attributes)))
        self.open.append(tag)

    def handle_endtag(self, tag):
        while self.open and self.open.pop() != tag:
            pass

    def handle_data(self, data):
        if self.open and self.open[-1] in ("script", "style"):
            self.loose += data


def test_it_is_served_with_everything_it_names(client):
    answer = client.curl("/")
    assert (answer.status, answer.header("Content-Type")) == (200, 'text/html; charset="UTF-8"')
    types = {"js": "text/javascript; charset=utf-8", "css": "text/css; charset=utf-8", "svg": "image/svg+xml",
             "json": "application/json"}
    named = [value for _, attributes in Page().elements for key, value in attributes.items() if key in ("src", "href")]
    assert len(named) == 4
    for name in named + [f"first/texts.{language}.json" for language in LANGUAGES]:
        answer = client.curl("/" + name.lstrip("/"))
        assert (answer.status, answer.header("Content-Type")) == (200, types[name.rsplit(".", 1)[1]])


def test_nothing_is_inline_and_nothing_is_from_elsewhere():
    page = Page()
    assert page.loose == ""
    for tag, attributes in page.elements:
        assert not [key for key in attributes if key.startswith("on") or key == "style"], tag
        for key in ("src", "href", "action"):
            assert not re.match(r"(?i)[a-z]+:|//", attributes.get(key) or "")
    script = (ROOT / "first/app.js").read_text()
    for sink in ("innerHTML", "outerHTML", "insertAdjacentHTML", "document.write", "eval(", "Function(", ".style",
                 "localStorage", "sessionStorage", "http:", "https:"):
        assert sink not in script


def test_every_input_has_its_label():
    page = Page()
    labels = {attributes["for"] for tag, attributes in page.elements if tag == "label" and "for" in attributes}
    named = [attributes["id"] for tag, attributes in page.elements
             if tag == "input" and attributes.get("type") != "checkbox"]
    assert named and set(named) <= labels
    assert ("html", {"lang": "en"}) in page.elements


@pytest.mark.parametrize("language", LANGUAGES)
def test_every_language_has_every_text(language):
    assert page_texts(language).keys() == page_texts("enu").keys()
    assert all(text.strip() for text in page_texts(language).values())
    english, own = strings("enu"), strings(language)
    assert {section: set(texts) for section, texts in own.items()} == \
        {section: set(texts) for section, texts in english.items()}
    if language != "enu":
        same = [key for section in own for key in own[section] if own[section][key] == english[section][key]]
        assert same == ["product"]


@pytest.mark.parametrize("language", LANGUAGES)
def test_the_page_says_what_the_programs_say(language):
    texts = {key: text for section in ("common", "login", "error") for key, text in strings(language)[section].items()}
    page = page_texts(language)
    shared = [key for key in texts if section_is_for_the_page(key)]
    assert len(shared) > 10
    for key in shared:
        assert page[key] == texts[key].replace("_CRATESERVER_", "CrateServer")


OTHERS = ("product", "error_not_found", "error_too_large", "error_full", "error_csp_document", "error_no_user",
          "error_no_group", "no_pw", "error_path", "error_no_right", "error_read_only", "error_no_space",
          "error_exists", "error_not_empty", "error_name", "error_no_file", "error_in_use",
          "error_no_volume", "error_upload_broken", "error_upload_gone", "error_slice")


def section_is_for_the_page(key):
    # Marks of fields come with the answer, in the caller's language; some programs are
    # none of the page's.
    return key not in strings("enu")["error"] and key not in OTHERS


def test_every_text_that_the_page_asks_for_is_there():
    script = (ROOT / "first/app.js").read_text()
    asked = set(re.findall(r'(?:say|text)\("(\w+)"', script))
    asked |= {attributes["data-text"] for _, attributes in Page().elements if "data-text" in attributes}
    asked |= set(re.findall(r'{ name: "(\w+)"', script))
    assert len(asked) > 20 and asked <= page_texts("enu").keys()
