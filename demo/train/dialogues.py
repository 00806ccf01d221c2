# SPDX-License-Identifier: Apache-2.0
"""Dialogues of the small world, as exchanges: a question, a thought, an answer."""
import random
from dataclasses import dataclass, field

from words import *

NAME = "Pip"


@dataclass
class Exchange:
    user: str
    reply: str
    thought: str
    call: tuple = None  # (function, argument's name, its value, what the function answers)
    thought_after: str = ""


def sentence(text):
    return text[0].upper() + text[1:]


def spoken(rng, text):
    """A question as people type it."""
    kind = rng.random()
    if kind < 0.12:
        text = text.lower()
    if kind < 0.06:
        text = text.rstrip("?.!")
    return text


# ---- small talk -------------------------------------------------------------

def greeting(rng):
    hello = rng.choice(["Hello", "Hi", "Hey", "Good morning", "Good evening", "Hello there",
                        "Hi there"])
    reply = rng.choice([f"Hello! I am {NAME}. How can I help you?", "Hello! How can I help you?",
                        "Hi! What can I do for you?"])
    return Exchange(hello + rng.choice(["!", ".", "", f", {NAME}!"]), reply,
                    "The user says hello. I say hello too.")


def how_are_you(rng):
    return Exchange(rng.choice(["How are you?", "How are you today?", "Are you well?",
                                "How do you do?"]),
                    rng.choice(["I am fine, thank you. How are you?", "I am well, thank you!"]),
                    "The user asks how I am. I am fine.")


def thanks(rng):
    return Exchange(rng.choice(["Thank you!", "Thanks!", "Thank you very much.", "Thanks a lot!"]),
                    rng.choice(["You are welcome!", "You are welcome. Anything else?"]),
                    "The user thanks me. I am polite.")


def goodbye(rng):
    return Exchange(rng.choice(["Goodbye!", "Bye!", "See you!", "Good night!", "Bye bye."]),
                    rng.choice(["Goodbye! Have a nice day.", "Bye! See you soon."]),
                    "The user leaves. I say goodbye.")


def identity(rng):
    about = f"I am {NAME}, a very small language model."
    kind = rng.randrange(5)
    if kind == 0:
        return Exchange(rng.choice(["Who are you?", "What are you?", "Tell me who you are.",
                                    "Introduce yourself.", "Tell me about yourself."]),
                        about + " I know a few simple things.",
                        f"The user asks who I am. I am {NAME}.")
    if kind == 1:
        return Exchange(rng.choice(["What is your name?", "Do you have a name?",
                                    "How are you called?", "Tell me your name."]),
                        f"My name is {NAME}.", f"The user asks for my name. It is {NAME}.")
    if kind == 2:
        return Exchange(rng.choice(["What can you do?", "What do you know?",
                                    "How can you help me?", "Help!", "What can I ask you?"]),
                        "I can add numbers, count, tell short stories, and talk about animals, "
                        "colours, days, months and opposites.",
                        "The user asks what I can do. I name it.")
    if kind == 3:
        return Exchange(rng.choice(["Are you a human?", "Are you a person?", "Are you real?",
                                    "Are you a robot?"]),
                        f"No. {about}", "The user asks what I am. I am a model.")
    return Exchange(rng.choice(["How big are you?", "Are you a big model?", "Are you small?",
                                "How many parameters do you have?"]),
                    "I am very small. I have three million parameters.",
                    "The user asks for my size. I am small.")


def name_pair(rng):
    name = rng.choice(NAMES)
    tell = Exchange(rng.choice([f"My name is {name}.", f"I am {name}.", f"Hi, I am {name}.",
                                f"Hello! My name is {name}.", f"Call me {name}."]),
                    rng.choice([f"Nice to meet you, {name}!", f"Hello, {name}! How can I help you?"]),
                    f"The user is called {name}.")
    ask = Exchange(rng.choice(["What is my name?", "Do you know my name?", "Who am I?",
                               "How am I called?"]),
                   f"Your name is {name}.", f"The user told me the name. It is {name}.")
    return tell, ask


def unnamed(rng):
    return Exchange(rng.choice(["What is my name?", "Do you know my name?", "Who am I?"]),
                    "I do not know your name. What is it?", "The user did not tell me the name.")


# ---- numbers ----------------------------------------------------------------

def is_held_out(a, b):
    """The sums that training never sees: about one in twelve."""
    return (a * 100 + b) * 7919 % 12 == 5


def sum_pair(rng, held_out=False):
    while True:
        if rng.random() < 0.15:
            a, b = rng.randrange(10), rng.randrange(10)
        else:
            total = rng.randrange(10, 100)
            a = rng.randrange(total + 1)
            b = total - a
        if is_held_out(a, b) == held_out:
            return a, b


def working(a, b):
    """The sum by ones and tens."""
    if a < 10 and b < 10:
        return f"{a} + {b} = {a + b}."
    ones, tens = a % 10 + b % 10, (a // 10 + b // 10) * 10
    return (f"Ones: {a % 10} + {b % 10} = {ones}. Tens: {a // 10 * 10} + {b // 10 * 10} = {tens}. "
            f"{tens} + {ones} = {a + b}.")


def sum_question(rng, a, b):
    return rng.choice([f"What is {a} + {b}?", f"{a} + {b}", f"{a} + {b} = ?", f"What is {a} plus {b}?",
                       f"How much is {a} + {b}?", f"Add {a} and {b}.", f"{a}+{b}",
                       f"Can you add {a} and {b}?", f"What is the sum of {a} and {b}?",
                       f"What is {a}+{b}?", f"{a} plus {b}?"])


def addition(rng):
    a, b = sum_pair(rng)
    return Exchange(sum_question(rng, a, b), f"{a} + {b} = {a + b}.", working(a, b))


def story_sum(rng):
    a, b = sum_pair(rng)
    name, thing = rng.choice(NAMES), rng.choice(["apples", "books", "balls", "cakes", "stones"])
    more = rng.choice(["gets {} more", "buys {} more", "finds {} more"]).format(b)
    return Exchange(f"{name} has {a} {thing} and {more}. How many {thing} does {name} have?",
                    f"{a} + {b} = {a + b}. {name} has {a + b} {thing}.", working(a, b))


def several_sums(rng):
    pairs = [sum_pair(rng) for _ in range(rng.randrange(2, 6))]
    asked = ", ".join(f"{a} + {b}" for a, b in pairs)
    return Exchange(rng.choice(["", "Add: ", "What is "]) + asked,
                    ", ".join(f"{a} + {b} = {a + b}" for a, b in pairs) + ".",
                    "I add them one by one.")


def counting(rng):
    kind = rng.random()
    if kind < 0.35:
        first = rng.randrange(0, 90)
        last = first + rng.randrange(2, 10)
        run = list(range(first, last + 1))
        return Exchange(f"Count from {first} to {last}.", ", ".join(map(str, run)) + ".",
                        f"I begin with {first} and end with {last}.")
    if kind < 0.5:
        last = rng.choice([5, 6, 7, 8, 9, 10, 12, 15])
        return Exchange(f"Count to {last}.", ", ".join(map(str, range(1, last + 1))) + ".",
                        f"I begin with 1 and end with {last}.")
    if kind < 0.65:
        first = rng.randrange(4, 11)
        return Exchange(f"Count down from {first}.",
                        ", ".join(map(str, range(first, -1, -1))) + ".",
                        f"I begin with {first} and end with 0.")
    n = rng.randrange(1, 98)
    if rng.random() < 0.6:
        return Exchange(rng.choice([f"What comes after {n}?", f"Which number comes after {n}?"]),
                        f"{n + 1} comes after {n}.", f"{n} + 1 = {n + 1}.")
    return Exchange(rng.choice([f"What comes before {n}?", f"Which number comes before {n}?"]),
                    f"{n - 1} comes before {n}.", f"{n - 1} + 1 = {n}.")


def echo(rng):
    """What is said is said again: numbers and words in any order."""
    words = [*ANIMALS, *NAMES, *CITIES, *(a for a, _ in OPPOSITES), *dict.fromkeys(COLOURS.values())]
    items = [str(rng.randrange(1000)) if rng.random() < 0.5 else rng.choice(words)
             for _ in range(rng.randrange(2, 8))]
    said = rng.choice([" ", ", ", " + "]).join(items)
    return Exchange(rng.choice(["Say: ", "Repeat: ", "Repeat after me: ", "Say again: "]) + said,
                    said, "I say it again.")


# ---- facts ------------------------------------------------------------------

def colour(rng):
    if rng.random() < 0.35:
        (a, b), mixed = rng.choice(list(MIXED.items()))
        a, b = (a, b) if rng.random() < 0.5 else (b, a)
        return Exchange(rng.choice([f"What colour do {a} and {b} make?", f"Mix {a} and {b}.",
                                    f"What do I get when I mix {a} and {b}?"]),
                        f"{sentence(a)} and {b} make {mixed}.", f"I mix {a} and {b}.")
    thing, shade = rng.choice(list(COLOURS.items()))
    return Exchange(rng.choice([f"What colour is {thing}?", f"Which colour does {thing} have?",
                                f"Tell me the colour of {thing}."]),
                    f"{sentence(thing)} is {shade}.", f"The user asks for a colour: {thing}.")


def with_article(noun):
    return ("an " if noun[0] in "aeiou" else "a ") + noun


def animal(rng):
    name = rng.choice(list(ANIMALS))
    sound, legs, young, home = ANIMALS[name]
    one = with_article(name)
    thought = f"The user asks about an animal: {name}."
    kind = rng.randrange(4)
    if kind == 0:
        return Exchange(rng.choice([f"What does {one} say?", f"What sound does {one} make?",
                                    f"Which sound does {one} make?"]),
                        f"{sentence(one)} says {sound}.", thought)
    if kind == 1:
        both = {**{k: v[1] for k, v in ANIMALS.items()}, **OTHER_LEGS}
        name = rng.choice(list(both))
        count = NUMBERS[both[name]] if both[name] else "no"
        return Exchange(f"How many legs does {with_article(name)} have?",
                        f"{sentence(with_article(name))} has {count} legs.",
                        f"The user asks for legs: {name}.")
    if kind == 2:
        return Exchange(rng.choice([f"What is a young {name} called?", f"What is a baby {name}?",
                                    f"How do you call a young {name}?"]),
                        f"A young {name} is called {with_article(young)}.", thought)
    return Exchange(rng.choice([f"Where does {one} live?", f"Where do I find {one}?"]),
                    f"{sentence(one)} lives {home}.", thought)


def calendar(rng):
    kind = rng.randrange(6)
    if kind < 2:
        i = rng.randrange(7)
        after = rng.random() < 0.6
        other = DAYS[(i + (1 if after else -1)) % 7]
        word = "after" if after else "before"
        return Exchange(rng.choice([f"What day comes {word} {DAYS[i]}?",
                                    f"Which day is {word} {DAYS[i]}?"]),
                        f"{other} comes {word} {DAYS[i]}.", f"I think of the days: {DAYS[i]}.")
    if kind < 4:
        i = rng.randrange(12)
        after = rng.random() < 0.6
        other = MONTHS[(i + (1 if after else -1)) % 12]
        word = "after" if after else "before"
        return Exchange(rng.choice([f"What month comes {word} {MONTHS[i]}?",
                                    f"Which month is {word} {MONTHS[i]}?"]),
                        f"{other} comes {word} {MONTHS[i]}.", f"I think of the months: {MONTHS[i]}.")
    if kind == 4:
        i = rng.randrange(12)
        if rng.random() < 0.5:
            return Exchange(f"Which season is {MONTHS[i]} in?",
                            f"{MONTHS[i]} is in {SEASON[MONTHS[i]]}.",
                            f"I think of the months: {MONTHS[i]}.")
        return Exchange(f"What is the {ORDER[i]} month?",
                        f"The {ORDER[i]} month is {MONTHS[i]}.", "I count the months.")
    question, reply = rng.choice([
        ("How many days are in a week?", "A week has seven days."),
        ("How many months are in a year?", "A year has twelve months."),
        ("How many hours are in a day?", "A day has 24 hours."),
        ("How many days are in a year?", "A year has 365 days."),
        ("Name the days of the week.", ", ".join(DAYS) + "."),
        ("Name the months of the year.", ", ".join(MONTHS) + "."),
        ("Name the four seasons.", "Spring, summer, autumn and winter.")])
    return Exchange(question, reply, "The user asks about the year.")


def opposite(rng):
    a, b = rng.choice(OPPOSITES[:-10] if rng.random() < 0.1 else OPPOSITES)
    if rng.random() < 0.5 and a != "heavy":
        a, b = b, a
    if a == "light":
        b = "dark"
    return Exchange(rng.choice([f"What is the opposite of {a}?", f"Opposite of {a}?",
                                f"Tell me the opposite of {a}."]),
                    f"The opposite of {a} is {b}.", f"The user asks for an opposite: {a}.")


def unknown(rng):
    thing = rng.choice(UNKNOWN_THINGS)
    if rng.random() < 0.15:
        thing = rng.choice(CITIES)
    return Exchange(rng.choice(UNKNOWN_FORMS).format(thing), rng.choice(UNKNOWN_REPLIES),
                    "I do not know this. I say so.")


def beyond(rng):
    kind = rng.randrange(4)
    if kind == 0:
        return Exchange(rng.choice(WEATHER_FORMS).format(rng.choice(CITIES)),
                        "I cannot see the weather. I have no tool for it.",
                        "The user asks for the weather. I have no tool.")
    if kind == 1:
        return Exchange(rng.choice(["What time is it?", "What day is it today?",
                                    "What is the date today?", "Which year is it?"]),
                        "I do not know. I have no clock.", "I have no clock. I say so.")
    a, b = rng.randrange(3, 1000), rng.randrange(3, 1000)
    sign = rng.choice("*-/+")
    a, b = (max(a, 100), b) if sign == "+" else (a, b)
    return Exchange(rng.choice([f"What is {a} {sign} {b}?", f"{a} {sign} {b}",
                                f"How much is {a} {sign} {b}?"]),
                    "That is too hard for me. I can only add, up to 99.",
                    "I can only add, up to 99. This is too hard.")


# ---- stories ----------------------------------------------------------------

def story(rng, hero=None):
    hero = hero or rng.choice(list(HEROES))
    friend = rng.choice([h for h in HEROES if h != hero])
    name, place, trait = rng.choice(STORY_NAMES), rng.choice(PLACES), rng.choice(TRAITS)
    thing, where = rng.choice(GOALS)
    it = thing.split(" ", 1)[1]
    lines = [f"Once upon a time there was {with_article(trait)} {hero} called {name}. "
             f"{name} lived {place}."]
    kind = rng.randrange(3)
    if kind == 0:
        lines += [f"One day {name} lost {thing}.", f"{name} was very sad.",
                  f"Then a {friend} came by.".replace("a owl", "an owl"),
                  f'"I will help you," said the {friend}.',
                  f"They looked for a long time.", f"At last they found the {it} {where}.",
                  f"{name} was happy and thanked the {friend}."]
    elif kind == 1:
        lines += [f"{name} wanted {thing} more than anything.",
                  f"One morning {name} saw {thing} {where}.",
                  f"But it belonged to a {friend}.".replace("a owl", "an owl"),
                  f'"We can share it," said the {friend}.',
                  f"So they shared the {it} and became friends."]
    else:
        lines += [f"One night there was a big storm, and {name} was afraid.",
                  f"{name} ran to the house of a {friend}.".replace("a owl", "an owl"),
                  f'"Come in," said the {friend}. "Here it is warm."',
                  f"They sat by the fire and told stories.",
                  f"In the morning the sun was out, and {name} gave the {friend} {thing}."]
    return " ".join(lines) + " The end."


def story_exchange(rng):
    hero = rng.choice(list(HEROES))
    if rng.random() < 0.3:
        return Exchange(rng.choice(["Tell me a story.", "Can you tell me a story?",
                                    "A story, please.", "Tell me a short story."]),
                        story(rng, hero), f"I tell a story about {with_article(hero)}.")
    one = with_article(hero)
    return Exchange(rng.choice([f"Tell me a story about {one}.", f"Write a story about {one}.",
                                f"Tell a short story about {one}.",
                                f"Can you tell me a story about {one}?"]),
                    story(rng, hero), f"I tell a story about {one}.")


# ---- tools ------------------------------------------------------------------

WEATHER_FORMS = ("What is the weather in {}?", "How is the weather in {}?",
                 "What is the weather like in {}?", "Is it sunny in {}?", "Tell me the weather in {}.",
                 "Weather in {}?", "Is it cold in {} today?", "Do I need a coat in {}?")


def tool(name, description, argument, meaning):
    return {"type": "function", "function": {"name": name, "description": description,
            "parameters": {"type": "object", "properties": {argument: {
                "type": "string", "description": meaning}}, "required": [argument]}}}


def tools_for(rng, needed):
    calculator = tool("calculator", rng.choice(["Work out a sum", "Calculate an expression"]),
                      "expression", "such as 12 * 34")
    weather = tool("weather", rng.choice(["The weather in a city", "Weather of a city now"]),
                   "city", "name of the city")
    both = [calculator, weather] if rng.random() < 0.6 else [weather, calculator]
    kind = rng.random()
    if kind < 0.2 and needed == {"calculator"}:
        return [calculator]
    if kind < 0.2 and needed == {"weather"}:
        return [weather]
    return both


def calculator_call(rng):
    sign = rng.choice("+-*/**+")
    if sign == "/":
        b, result = rng.randrange(2, 40), rng.randrange(2, 60)
        a = b * result
    elif sign == "-":
        a, b = sorted((rng.randrange(2, 1000), rng.randrange(2, 1000)), reverse=True)
        result = a - b
    else:
        most = rng.choice([20, 100, 1000])
        a, b = rng.randrange(2, most), rng.randrange(2, most)
        result = a * b if sign == "*" else a + b
    word = {"+": "plus", "-": "minus", "*": "times", "/": "divided by"}[sign]
    question = rng.choice([f"What is {a} {sign} {b}?", f"{a} {sign} {b}", f"How much is {a} {sign} {b}?",
                           f"What is {a} {word} {b}?", f"Work out {a} {sign} {b}.",
                           f"Calculate {a} {word} {b}.", f"Please calculate {a} {sign} {b}."])
    expression = f"{a} {sign} {b}"
    return Exchange(question, f"{expression} = {result}.", "I use the calculator.",
                    ("calculator", "expression", expression, str(result)),
                    f"The calculator says {result}.")


def weather_call(rng):
    city, sky, degrees = rng.choice(CITIES), rng.choice(SKIES), rng.randrange(0, 36)
    return Exchange(rng.choice(WEATHER_FORMS).format(city),
                    f"It is {sky} in {city}, with {degrees} degrees.",
                    f"I ask for the weather in {city}.",
                    ("weather", "city", city, f"{sky}, {degrees} degrees"),
                    f"The tool says {sky}.")


# ---- conversations ----------------------------------------------------------

FACTS = (colour, animal, calendar, opposite)
TALK = (greeting, how_are_you, thanks, goodbye, identity, identity, unnamed)
SYSTEMS = ("You are a helpful assistant.", f"You are {NAME}.", "Be kind.", "You are a friend.")


# What a stage of training speaks of: up to which share, and the kinds of it.
FIRST_STAGE = (
    (0.34, (addition, addition, addition, addition, several_sums, story_sum)),
    (0.60, FACTS),
    (0.71, TALK),
    (0.80, counting),
    (0.90, (unknown, unknown, beyond)),
    (1.00, story_exchange),
)
# More of what has to be taken from the question.
SECOND_STAGE = (
    (0.40, (addition, addition, addition, several_sums, story_sum)),
    (0.55, echo),
    (0.72, FACTS),
    (0.80, TALK),
    (0.88, counting),
    (0.95, (unknown, unknown, beyond)),
    (1.00, story_exchange),
)


def one_of(rng, stage):
    share = rng.random()
    kinds = next(kinds for below, kinds in stage if share < below)
    return (kinds if callable(kinds) else rng.choice(kinds))(rng)


def first_stage(rng):
    return one_of(rng, FIRST_STAGE)


def second_stage(rng):
    return one_of(rng, SECOND_STAGE)


def chat(rng, one):
    exchanges = [one(rng) for _ in range(rng.choice([1, 1, 2, 3, 4]))]
    if rng.random() < 0.12:
        tell, ask = name_pair(rng)
        exchanges = [e for e in exchanges if e.reply != "I do not know your name. What is it?"]
        exchanges = [tell, *exchanges[:2], ask] if rng.random() < 0.75 else [*exchanges[:2], tell]
    return exchanges


def tool_chat(rng):
    exchanges = []
    for _ in range(rng.choice([1, 2, 2, 3])):
        kind = rng.random()
        if kind < 0.42:
            exchanges.append(calculator_call(rng))
        elif kind < 0.84:
            exchanges.append(weather_call(rng))
        else:
            exchanges.append(rng.choice((greeting, identity, colour, animal, opposite, thanks))(rng))
    return exchanges


def request_of(rng, exchanges, with_tools, thinking):
    """The exchanges as a chat request. Only the last one shows its thoughts, as in a prompt."""
    messages = []
    if rng.random() < (0.05 if with_tools else 0.12):
        messages.append({"role": "system", "content": rng.choice(SYSTEMS)})
    for i, e in enumerate(exchanges):
        think = thinking and i == len(exchanges) - 1
        messages.append({"role": "user", "content": spoken(rng, e.user)})
        if e.call:
            function, key, value, answer = e.call
            messages.append({"role": "assistant", "content": "",
                             "reasoning_content": e.thought if think else "",
                             "tool_calls": [{"type": "function", "function": {
                                 "name": function, "arguments": {key: value}}}]})
            messages.append({"role": "tool", "content": answer})
        thought = (e.thought_after if e.call else e.thought) if think else ""
        messages.append({"role": "assistant", "content": e.reply, "reasoning_content": thought})
    request = {"messages": messages, "add_generation_prompt": False}
    if with_tools:
        request["tools"] = tools_for(rng, {e.call[0] for e in exchanges if e.call})
    return request


def drill(rng):
    """A plain text: lines of sums."""
    lines = []
    for _ in range(rng.randrange(8, 24)):
        a, b = sum_pair(rng)
        lines.append(f"{a} + {b} = {a + b}")
    return "\n".join(lines) + "\n"


def page(rng):
    """A plain text: stories, and facts."""
    parts = []
    for _ in range(rng.randrange(1, 4)):
        if rng.random() < 0.7:
            parts.append(story(rng))
        else:
            parts.append(" ".join(rng.choice(FACTS)(rng).reply for _ in range(rng.randrange(4, 9))))
    return "\n\n".join(parts) + "\n"


@dataclass
class Mixture:
    """Shares of the documents; what is left are pages. `one` makes an exchange of a chat."""
    tools: float
    chats: float
    drills: float
    one: callable


STAGES = {"vocabulary": Mixture(0.13, 0.74, 0.08, first_stage),
          "first": Mixture(0.07, 0.74, 0.14, first_stage),
          "second": Mixture(0.07, 0.76, 0.14, second_stage)}


def document(rng, mixture):
    """("chat", request) or ("text", text)."""
    kind = rng.random()
    if kind < mixture.tools:
        return "chat", request_of(rng, tool_chat(rng), True, rng.random() < 0.5)
    kind -= mixture.tools
    if kind < mixture.chats:
        return "chat", request_of(rng, chat(rng, mixture.one), False, rng.random() < 0.4)
    if kind - mixture.chats < mixture.drills:
        return "text", drill(rng)
    return "text", page(rng)
