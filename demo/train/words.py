# SPDX-License-Identifier: Apache-2.0
"""The small world that the demo model knows."""

NUMBERS = ("zero one two three four five six seven eight nine ten eleven twelve thirteen fourteen "
           "fifteen sixteen seventeen eighteen nineteen twenty").split()
DAYS = "Monday Tuesday Wednesday Thursday Friday Saturday Sunday".split()
MONTHS = ("January February March April May June July August September October November "
          "December").split()
SEASON = {"December": "winter", "January": "winter", "February": "winter", "March": "spring",
          "April": "spring", "May": "spring", "June": "summer", "July": "summer",
          "August": "summer", "September": "autumn", "October": "autumn", "November": "autumn"}
ORDER = ("first second third fourth fifth sixth seventh eighth ninth tenth eleventh "
         "twelfth").split()

COLOURS = {"the sky": "blue", "grass": "green", "snow": "white", "coal": "black",
           "a lemon": "yellow", "a tomato": "red", "a carrot": "orange", "a plum": "purple",
           "chocolate": "brown", "the sun": "yellow", "a leaf": "green", "blood": "red",
           "milk": "white", "a banana": "yellow", "a frog": "green", "the sea": "blue",
           "a cherry": "red", "an elephant": "grey", "a pig": "pink", "a crow": "black"}
MIXED = {("red", "yellow"): "orange", ("blue", "yellow"): "green", ("red", "blue"): "purple",
         ("black", "white"): "grey", ("red", "white"): "pink"}

# sound, legs, young, home
ANIMALS = {"cow": ("moo", 4, "calf", "on a farm"), "dog": ("woof", 4, "puppy", "in a house"),
           "cat": ("meow", 4, "kitten", "in a house"), "duck": ("quack", 2, "duckling", "by a pond"),
           "sheep": ("baa", 4, "lamb", "on a farm"), "pig": ("oink", 4, "piglet", "on a farm"),
           "hen": ("cluck", 2, "chick", "on a farm"), "lion": ("roar", 4, "cub", "in Africa"),
           "horse": ("neigh", 4, "foal", "on a farm"), "bear": ("growl", 4, "cub", "in the forest"),
           "owl": ("hoot", 2, "owlet", "in the forest"), "frog": ("croak", 4, "tadpole", "by a pond"),
           "bee": ("buzz", 6, "larva", "in a hive"), "mouse": ("squeak", 4, "pup", "in a hole"),
           "wolf": ("howl", 4, "pup", "in the forest"), "goat": ("bleat", 4, "kid", "on a farm")}
OTHER_LEGS = {"spider": 8, "ant": 6, "snake": 0, "fish": 0, "chair": 4, "human": 2}

OPPOSITES = [("hot", "cold"), ("big", "small"), ("up", "down"), ("day", "night"), ("old", "young"),
             ("fast", "slow"), ("happy", "sad"), ("wet", "dry"), ("open", "closed"),
             ("light", "dark"), ("hard", "soft"), ("left", "right"), ("full", "empty"),
             ("high", "low"), ("rich", "poor"), ("early", "late"), ("long", "short"),
             ("good", "bad"), ("clean", "dirty"), ("strong", "weak"), ("loud", "quiet"),
             ("near", "far"), ("first", "last"), ("thick", "thin"), ("true", "false"),
             ("heavy", "light"), ("sweet", "sour"), ("black", "white"), ("begin", "end"),
             ("give", "take"), ("love", "hate"), ("win", "lose"), ("buy", "sell"), ("push", "pull")]

NAMES = ("Anna Ben Clara David Emma Felix Grace Henry Ida Jack Kate Leo Mia Noah Olga Paul Rosa Sam "
         "Tina Tom Vera Will Zoe Max Lily Omar Nina Peter Sara Hugo Alice Bob Carla Dan Eva Finn "
         "Gina Hans Iris Jonas Lena Mark Nora Oscar Ruth Simon Tara Victor Wendy Yara").split()

CITIES = ("Paris London Berlin Madrid Rome Vienna Oslo Lisbon Dublin Prague Warsaw Athens Helsinki "
          "Copenhagen Stockholm Brussels Amsterdam Budapest Zurich Geneva Milan Munich Hamburg "
          "Cologne Lyon Nice Porto Seville Valencia Naples Turin Bergen Malaga Riga Vilnius Tallinn "
          "Cairo Nairobi Lagos Accra Tunis Dakar Cape+Town Tokyo Osaka Kyoto Seoul Beijing Shanghai "
          "Bangkok Hanoi Manila Jakarta Delhi Mumbai Lima Quito Bogota Havana Santiago Toronto "
          "Montreal Vancouver Chicago Boston Seattle Denver Dallas Houston Miami Atlanta Phoenix "
          "New+York San+Diego Sydney Perth Melbourne Auckland Wellington Moscow Istanbul Ankara "
          "Tehran Baghdad Dubai Doha Karachi Lahore Dhaka Leeds York Bath Oxford Cambridge Glasgow "
          "Cardiff Belfast Bremen Dresden Leipzig Graz Linz Basel Bern Ghent Bruges").replace("+", "_")
CITIES = [c.replace("_", " ") for c in CITIES.split()]
HELD_OUT_CITIES = ("Salzburg", "Florence", "Bristol", "Austin", "Nagoya", "Marseille", "Krakow",
                   "Toledo", "Lima", "Boston", "Madrid", "Perth")
CITIES = [c for c in CITIES if c not in HELD_OUT_CITIES[:8]]

SKIES = ("sunny", "cloudy", "rainy", "windy", "foggy", "snowy")

UNKNOWN_THINGS = (
    "Peru, Brazil, the moon, Napoleon, Einstein, the Eiffel Tower, gold, the atom, gravity, "
    "photosynthesis, football, chess, jazz, the Roman Empire, the internet, Mozart, Picasso, "
    "democracy, inflation, the stock market, quantum physics, the French Revolution, pizza, steel, "
    "volcanoes, the Titanic, Mars, black holes, the Olympic Games, Shakespeare, Hamlet, Canada, "
    "India, Spain, Poland, Japan, the Nile, Mount Everest, the Great Wall, dinosaurs, electricity, "
    "the telephone, penicillin, cancer, the brain, taxes, marriage, the law, God, the universe, "
    "Python, a compiler, the president, the king, the queen, the world cup, the Bible, Latin, "
    "Greek, German, Chinese, the piano, the violin, opera, ballet, tennis, baseball, oil, water, "
    "salt, sugar, bread, cheese, wine, coffee, tea, rice, wheat, a car, a plane, a train, a bridge, "
    "the heart, blood pressure, vitamins, viruses, bacteria, evolution, climate change, the ozone "
    "layer, nuclear power, solar panels, a rocket, a satellite, Jupiter, Saturn, the speed of "
    "light, a triangle, pi, algebra, a prime number, a matrix, poetry, a novel, the news").split(", ")
UNKNOWN_FORMS = (
    "What is the capital of {}?", "Who invented {}?", "When was {} discovered?",
    "Tell me about {}.", "How does {} work?", "Explain {} to me.", "Who won the prize for {}?",
    "What is the history of {}?", "How old is {}?", "How much does {} cost?", "Why is {} important?",
    "What do you think about {}?", "Write an essay about {}.", "Who wrote about {}?",
    "Where can I learn about {}?", "What year did {} begin?", "How far away is {}?",
    "What is {}?", "Who is the best at {}?", "Translate {} into French.", "How many people like {}?",
    "Is {} dangerous?", "What is {} made of?", "Give me three facts about {}.",
    "What happened to {}?", "Can you help me with {}?")
UNKNOWN_REPLIES = (
    "I do not know that. I am a very small model.",
    "Sorry, I do not know that. My world is very small.",
    "I do not know. I only know a few simple things.")

HEROES = {"fox": "fox", "mouse": "mouse", "bear": "bear", "rabbit": "rabbit", "owl": "owl",
          "duck": "duck", "cat": "cat", "dog": "dog", "frog": "frog", "hen": "hen", "goat": "goat",
          "wolf": "wolf"}
STORY_NAMES = ("Pim Lulu Bo Mimi Toto Nell Rufus Daisy Kiki Otto Bella Fred").split()
PLACES = ("in a forest", "by a lake", "on a farm", "near a river", "in a small town", "on a hill",
          "in a garden", "by the sea")
TRAITS = ("small", "young", "old", "brave", "kind", "clever", "shy", "happy")
# what was lost or wished for, where it was found
GOALS = (("a red ball", "under a tree"), ("a warm hat", "in a box"), ("a blue kite", "on a roof"),
         ("a golden key", "behind a stone"), ("a sweet apple", "in a basket"),
         ("a little bell", "in the grass"), ("a big cake", "on a table"),
         ("a silver ring", "in the sand"), ("a good book", "under a bed"),
         ("a toy boat", "by the water"))
