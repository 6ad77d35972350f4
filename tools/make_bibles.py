#!/usr/bin/python3
"""Builds the two built-in Bibles, resources/bible-en-kjv.qz and resources/bible-es-rv1909.qz,
from Debian's public-domain SWORD modules engKJV2006eb (King James Version) and spaRV1909eb
(Reina-Valera 1909), both in KJV versification.

Run by hand when the text must change; the build only embeds the files this writes:

    apt-get install -y sword-text-kjv sword-text-sparv python3-sword
    /usr/bin/python3 tools/make_bibles.py            # writes both files under resources/
    /usr/bin/python3 tools/make_bibles.py --check    # also lists verses whose Spanish text does
                                                     # not line up with the KJV verse (by Strong's)

It needs the system Python, which is the one python3-sword is built for.

Output: the qCompress format (4-byte big-endian length of the plain data, then a zlib stream)
of one UTF-8 JSON object {"id", "name", "lang", "books"}; "books" holds 66 books in canonical
order, a book is an array of chapters, a chapter an array of verse strings. Every document has
1189 chapters and 31102 verses, in KJV versification.

What is done to the text:
- All markup goes: Strong's numbers and morphology, OSIS tags, stray USFM markers ("\\nd"),
  pilcrows, footnotes, headings; entities are decoded and white space is collapsed. The KJV's
  own brackets ("[but]" in 1 John 2:23) are text of that edition and stay.
- Psalm superscriptions ("A Psalm of David.", "Salmo de David.") are left out of verse 1 in both
  Bibles, so that "Psalm 23:1" shows the line a congregation reads. The KJV module marks them as
  titles; the Spanish module runs them into verse 1 as plain text, so there, in the psalms the
  KJV marks as titled, verse 1 starts at the first word in capitals, which is how the RV1909
  prints a psalm's first word ("Salmo de David. JEHOVÁ es mi pastor" -> "JEHOVÁ es mi pastor").
  "Aleluya." stays: the KJV has it in the verse too ("Praise ye the LORD."). The acrostic letters
  of Psalm 119 ("ALEPH.") go the same way, as do the subscriptions after the last verse of
  Paul's letters ("Written to the Romans from Corinthus...", in Spanish after the last "Amén.").
- The Spanish module fills some KJV slots with the Hebrew numbering and leaves others empty or
  doubled (Numbers 13 and 30, 1 Samuel 24, Job 38-40, Hosea 12, Jonah 2, ...). SPANISH_REGROUP
  below moves those verses back onto the KJV numbering, splitting a doubled verse at the words
  that start the next KJV verse, so that a reference shows the same verse in both languages.
- Spanish words that the module split around an added word ("sáca<lo>") are joined again.
"""

import argparse
import html
import json
import re
import struct
import sys
import zlib
from pathlib import Path

import Sword

ROOT = Path(__file__).resolve().parent.parent

# Elements whose text is kept; any other tag stands for a break between words.
INLINE = {"w", "transChange", "divineName", "q", "seg", "foreign", "hi", "inscription", "name",
          "catchWord", "abbr", "mentioned"}
# Elements dropped with all they hold.
DROPPED = {"note", "title", "rdg", "figure"}

# Pronouns the Spanish module tags as added words right after the verb they belong to.
CLITICS = {"lo", "la", "los", "las", "le", "les", "me", "te", "se", "nos", "os"}
# Words before such a pronoun that are not verbs: there the pronoun is a word of its own.
NOT_VERBS = {"no", "como", "gentes", "que", "os", "ellos", "dios", "y", "josué", "jehová", "cuánto"}

# Books as the module's KJV versification orders them (0 = Genesis ... 65 = Revelation).
NUMBERS, JUDGES, SAMUEL1, SAMUEL2, KINGS1, CHRONICLES1, CHRONICLES2 = 3, 6, 8, 9, 10, 12, 13
JOB, PSALMS, HOSEA, JONAH, ACTS, CORINTHIANS2 = 17, 18, 27, 31, 43, 46

# Spanish runs re-laid onto KJV verses: (book, first chapter:verse, last chapter:verse, splits,
# joins). The Spanish verses of the run, empty ones skipped, are cut again before each text of
# "splits" and glued to the one before at each verse that starts with a text of "joins"; the
# pieces must then fill the run's KJV slots exactly.
SPANISH_REGROUP = [
    (NUMBERS, (12, 16), (13, 33), ["También vimos allí gigantes"], []),
    (NUMBERS, (29, 40), (30, 16), ["Estas son las ordenanzas"], []),
    (JUDGES, (14, 18), (14, 20), ["Y la mujer de Samsón fué dada"], ["Y él les respondió: Si no araseis"]),
    (SAMUEL1, (23, 29), (24, 22), ["Entonces David juró á Saúl"], []),
    (SAMUEL2, (20, 25), (20, 26), ["é Ira Jaireo"], []),
    (KINGS1, (18, 33), (18, 34), ["Y dijo: Hacedlo otra vez"], ["Y dijo: Henchid"]),
    (KINGS1, (22, 43), (22, 53), ["Porque sirvió á Baal"], ["Con todo eso los altos"]),
    (CHRONICLES1, (1, 30), (1, 32), ["Jetur, Naphis"], ["Los hijos de Jobsán"]),
    (CHRONICLES1, (21, 15), (21, 30), ["Mas David no pudo"], ["Y dijo al ángel que destruía"]),
    (CHRONICLES2, (33, 10), (33, 25), ["por lo cual Jehová trajo"], []),
    (JOB, (35, 15), (35, 16), ["por eso Job abrió"], []),
    (JOB, (38, 39), (40, 24),
     ["Ella habita", "Desde allí acecha", "Sus pollos chupan", "A más de eso respondió",
      "¿Es sabiduría contender", "Y respondió Job á Jehová", "He aquí que yo soy vil",
      "Una vez hablé"], []),
    (HOSEA, (11, 12), (12, 14), ["Enojado ha Ephraim"], []),
    (JONAH, (1, 17), (2, 10), ["Y mandó Jehová al pez"], []),
    (ACTS, (19, 40), (19, 41), ["Y habiendo dicho esto"], []),
    (CORINTHIANS2, (13, 12), (13, 14), ["Todos los santos os saludan"], []),
]

# A chapter's first word is printed in capitals in the RV1909; a verse moved off a chapter's
# start gets it back in plain case. Names keep their capital.
PROPER_NAMES = {"MOISÉS"}

ACROSTIC = ["ALEPH", "BETH", "GIMEL", "DALETH", "HE", "VAU", "ZAIN", "CHETH", "TETH", "JOD",
            "CAPH", "LAMED", "MEM", "NUN", "SAMECH", "AIN", "PE", "TZADDI", "COPH", "RESH", "SIN",
            "TAU"]

TAG = re.compile(r"<(/?)([A-Za-z]+)\b([^>]*?)(/?)>")
USFM_MARKER = re.compile(r"\\[a-z]+\d*\*?")
CAPITAL_WORD = re.compile(r"^[¡¿(«\"]*[A-ZÁÉÍÓÚÑÜ]{2,}[.,;:!?]*$")


class Verse:
    """A verse as words, each with the Strong's numbers of the text it came from."""

    def __init__(self, words=None):
        self.words = words or []  # list of (text, frozenset of Strong's numbers)

    def text(self):
        return " ".join(w for w, _ in self.words)

    def strongs(self):
        out = set()
        for _, s in self.words:
            out |= s
        return out

    def split_at(self, marker):
        """Cuts before the word where marker starts; None when marker does not start a word."""
        for i in range(1, len(self.words)):
            if " ".join(w for w, _ in self.words[i:]).startswith(marker):
                return Verse(self.words[:i]), Verse(self.words[i:])
        return None


def strongs_of(attrs):
    m = re.search(r'lemma="([^"]*)"', attrs)
    if not m:
        return frozenset()
    out = set()
    for item in m.group(1).split():
        item = item.split(":", 1)[-1]
        if re.fullmatch(r"[HG]\d+", item):
            out.add(item[0] + str(int(item[1:])))
    return frozenset(out)


def clean(raw):
    """OSIS of one verse -> Verse of plain words."""
    words = []
    word, word_strongs = [], set()
    lemmas = []          # stack of Strong's sets of the open <w> elements
    dropped = 0          # depth inside dropped elements
    pending = None       # what the tags since the last text mean: None, "word", "space"
    last_word = ""       # the word written before the pending tags, for the clitic rule

    def flush():
        nonlocal word, word_strongs
        if word:
            words.append(("".join(word), frozenset(word_strongs)))
        word, word_strongs = [], set()

    pos = 0
    for m in list(TAG.finditer(raw)) + [None]:
        text = raw[pos:m.start()] if m else raw[pos:]
        if text and not dropped:
            # The KJV module keeps a few USFM markers ("\\nd LORD") as text.
            text = USFM_MARKER.sub(" ", html.unescape(text)).replace("¶", " ")
            if pending == "space":
                flush()
            elif pending == "word" and word and word[-1].isalpha() and text[:1].isalpha():
                # An added word next to a tagged one: its own word, unless it is a pronoun
                # that belongs to the verb before it.
                joins = text in CLITICS and last_word.lower() not in NOT_VERBS
                if not joins:
                    flush()
            current = lemmas[-1] if lemmas else frozenset()
            for ch in text:
                if ch.isspace():
                    flush()
                else:
                    word.append(ch)
                    word_strongs.update(current)
            pending = None
            last_word = "".join(word) if word else (words[-1][0] if words else "")
        if m is None:
            break
        pos = m.end()
        closing, name, attrs, empty = m.group(1), m.group(2), m.group(3), m.group(4)
        if name in DROPPED:
            if not empty:
                dropped += -1 if closing else 1
            continue
        if dropped:
            continue
        if name == "w" and not empty:
            if closing:
                if lemmas:
                    lemmas.pop()
            else:
                lemmas.append(strongs_of(attrs))
        if name in INLINE:
            if name == "transChange" and pending is None:
                pending = "word"
        else:
            pending = "space"
    flush()
    return Verse(words)


def read_raw(name):
    """The module's raw OSIS as books of chapters of verses, over the KJV versification."""
    manager = Sword.SWMgr()  # owns the module: keep it alive while reading
    module = manager.getModule(name)
    if module is None:
        sys.exit(f"SWORD module {name} is missing: apt-get install sword-text-kjv sword-text-sparv")
    key = Sword.VerseKey()
    key.setVersificationSystem("KJV")
    books = []
    for testament in (1, 2):
        key.setTestament(testament)
        for book in range(1, key.getBookMax() + 1):
            key.setBook(book)
            chapters = []
            for chapter in range(1, key.getChapterMax() + 1):
                key.setChapter(chapter)
                verses = []
                for verse in range(1, key.getVerseMax() + 1):
                    key.setVerse(verse)
                    module.setKey(key)
                    verses.append(module.getRawEntry())
                chapters.append(verses)
            books.append(chapters)
    return books


def clean_all(raw):
    return [[[clean(v) for v in chapter] for chapter in book] for book in raw]


def title_case(word):
    return re.sub(r"[A-ZÁÉÍÓÚÑÜ]+", lambda m: m.group(0)[0] + m.group(0)[1:].lower(), word)


def decapitalise(verse):
    """Plain case for the capitalised first word of a verse that no longer starts a chapter."""
    words = list(verse.words)
    for i, (w, s) in enumerate(words[:2]):
        if CAPITAL_WORD.match(w):
            bare = w.strip("¡¿(«\".,;:!?")
            words[i] = (title_case(w) if i == 0 or bare in PROPER_NAMES else w.lower(), s)
            return Verse(words)
    return verse


def regroup(books, book, first, last, splits, joins):
    slots = []
    for c in range(first[0], last[0] + 1):
        v0 = first[1] if c == first[0] else 1
        v1 = last[1] if c == last[0] else len(books[book][c - 1])
        slots += [(c, v) for v in range(v0, v1 + 1)]
    pieces = []  # (verse, whether it began a chapter)
    for c, v in slots:
        verse = books[book][c - 1][v - 1]
        if not verse.words:
            continue
        if any(verse.text().startswith(j) for j in joins):
            prev, began = pieces[-1]
            words = list(verse.words)
            if prev.text().endswith(","):  # "...de aquel mal, y dijo al ángel"
                words[0] = (words[0][0][0].lower() + words[0][0][1:], words[0][1])
            pieces[-1] = (Verse(prev.words + words), began)
        else:
            pieces.append((verse, v == 1))
    for marker in splits:
        for i, (verse, began) in enumerate(pieces):
            cut = verse.split_at(marker)
            if cut:
                pieces[i:i + 1] = [(cut[0], began), (cut[1], False)]
                break
        else:
            sys.exit(f"book {book}: no verse holds {marker!r}")
    if len(pieces) != len(slots):
        sys.exit(f"book {book} {first}-{last}: {len(pieces)} pieces for {len(slots)} verses")
    for (c, v), (verse, began) in zip(slots, pieces):
        books[book][c - 1][v - 1] = decapitalise(verse) if began and v != 1 else verse


def drop_superscriptions(spanish, titled):
    for c in titled:
        verse = spanish[PSALMS][c - 1][0]
        words = verse.words
        start = next((i for i, (w, _) in enumerate(words) if i > 0 and CAPITAL_WORD.match(w)), None)
        if start is None:
            sys.exit(f"Psalm {c}: no start found after the superscription")
        if start > 1 and re.fullmatch(r"[AY]", words[start - 1][0]):  # "A TI, oh Jehová"
            start -= 1
        spanish[PSALMS][c - 1][0] = Verse(words[start:])
    psalm = spanish[PSALMS][118]
    for n, letter in enumerate(ACROSTIC):
        verse = psalm[n * 8]
        if verse.words and verse.words[0][0].rstrip(".") == letter:
            psalm[n * 8] = Verse(verse.words[1:])
        else:
            sys.exit(f"Psalm 119:{n * 8 + 1}: no {letter} heading")


def drop_subscriptions(spanish, books_with_subscription):
    for b in books_with_subscription:
        verse = spanish[b][-1][-1]
        text = [w for w, _ in verse.words]
        ends = [i for i, w in enumerate(text) if w == "Amén."]
        if not ends or ends[-1] == len(text) - 1:
            sys.exit(f"book {b}: no subscription after the last Amén.")
        spanish[b][-1][-1] = Verse(verse.words[:ends[-1] + 1])


def kjv_titles(raw):
    """Psalms with a superscription, and books with a subscription, as the KJV marks them."""
    psalms = [c + 1 for c, chapter in enumerate(raw[PSALMS])
              if re.search(r'<title[^>]*type="psalm"', chapter[0])]
    subscribed = [b for b, book in enumerate(raw) if "<title>" in book[-1][-1]]
    return psalms, subscribed


def check_alignment(spanish, english):
    """Prints Spanish verses that share more Strong's numbers with a neighbouring KJV verse."""
    flat = [(b, c, v, spanish[b][c][v].strongs(), english[b][c][v].strongs())
            for b in range(66) for c in range(len(english[b])) for v in range(len(english[b][c]))]

    def sim(a, b):
        return len(a & b) / len(a | b) if a and b else 0.0

    found = 0
    for i, (b, c, v, es, en) in enumerate(flat):
        here = sim(es, en)
        near = max(sim(es, flat[j][4]) for j in (i - 1, i + 1) if 0 <= j < len(flat))
        if es and en and near > here + 0.3:
            found += 1
            print(f"  book {b} {c + 1}:{v + 1}: {here:.2f} here, {near:.2f} next door: "
                  f"{spanish[b][c][v].text()[:70]}")
    print(f"alignment: {found} verse(s) fit a neighbour better")


def document(books, ident, name, lang):
    plain = []
    for b, chapters in enumerate(books):
        out_chapters = []
        for c, verses in enumerate(chapters):
            out = []
            for v, verse in enumerate(verses):
                text = verse.text()
                if not text:
                    sys.exit(f"{ident}: book {b} {c + 1}:{v + 1} is empty")
                if re.search(r"[<>¶]|\b[HG]\d+\b", text):
                    sys.exit(f"{ident}: markup left in book {b} {c + 1}:{v + 1}: {text}")
                out.append(text)
            out_chapters.append(out)
        plain.append(out_chapters)
    chapters = sum(len(b) for b in plain)
    verses = sum(len(c) for b in plain for c in b)
    if len(plain) != 66 or chapters != 1189 or verses != 31102:
        sys.exit(f"{ident}: {len(plain)} books, {chapters} chapters, {verses} verses")
    data = json.dumps({"id": ident, "name": name, "lang": lang, "books": plain},
                      ensure_ascii=False, separators=(",", ":")).encode("utf-8")
    return data


def qcompress(data):
    return struct.pack(">I", len(data)) + zlib.compress(data, 9)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--out", type=Path, default=ROOT / "resources")
    parser.add_argument("--check", action="store_true")
    args = parser.parse_args()

    raw_english = read_raw("engKJV2006eb")
    english = clean_all(raw_english)
    spanish = clean_all(read_raw("spaRV1909eb"))
    for book, first, last, splits, joins in SPANISH_REGROUP:
        regroup(spanish, book, first, last, splits, joins)
    titled, subscribed = kjv_titles(raw_english)
    drop_superscriptions(spanish, titled)
    drop_subscriptions(spanish, subscribed)
    if args.check:
        check_alignment(spanish, english)

    for books, ident, name, lang, file in (
            (english, "KJV", "King James Version", "en", "bible-en-kjv.qz"),
            (spanish, "RV1909", "Reina-Valera 1909", "es", "bible-es-rv1909.qz")):
        data = document(books, ident, name, lang)
        packed = qcompress(data)
        (args.out / file).write_bytes(packed)
        print(f"{file}: {len(data)} bytes of JSON, {len(packed)} bytes written")


if __name__ == "__main__":
    main()
