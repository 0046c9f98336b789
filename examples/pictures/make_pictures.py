#!/usr/bin/env python3
"""Draws the images of text in this folder, and writes the true lines of each to a .txt file.

Needs Pillow and a font with Chinese glyphs. All random numbers have fixed seeds, so the same
versions of Pillow and of the font draw the same images.
"""

import argparse
import pathlib
import random
import sys

from PIL import Image, ImageChops, ImageDraw, ImageFilter, ImageFont

DEFAULT_FONT = "/usr/share/fonts/truetype/wqy/wqy-microhei.ttc"


class Page:
    """An image and the lines written on it, in the order of writing."""

    def __init__(self, width, height, paper, font):
        self.image = Image.new("RGB", (width, height), paper)
        self.draw = ImageDraw.Draw(self.image)
        self.font = font
        self.lines = []

    def write(self, x, y, text, size, ink, anchor="lm"):
        """Writes a line vertically centred on y, with its left end ("lm"), middle or right at x."""
        # The basic layout is built into Pillow; other layouts need libraries of the system.
        face = ImageFont.truetype(self.font, size, layout_engine=ImageFont.Layout.BASIC)
        self.draw.text((x, y), text, font=face, fill=ink, anchor=anchor)
        self.lines.append(text)


def noise(size, rng):
    return Image.frombytes("L", size, rng.randbytes(size[0] * size[1]))


def around_zero(field, amplitude):
    """Rescales a grey image to 128 +- amplitude, for add_field()."""
    return field.point([round(128 + (v - 127.5) * amplitude / 127.5) for v in range(256)])


def add_field(image, field):
    return ImageChops.add(image, Image.merge("RGB", [field] * 3), scale=1, offset=-128)


def uneven_light(image, rng, amplitude, cells=(4, 5)):
    coarse = noise(cells, rng).resize(image.size, Image.Resampling.BICUBIC)
    return add_field(image, around_zero(coarse, amplitude))


def grain(image, rng, amplitude, softness=0.6):
    """Adds paper texture and camera noise. The amplitude is doubled because blurring reduces it."""
    field = noise(image.size, rng).filter(ImageFilter.GaussianBlur(softness))
    return add_field(image, around_zero(field, 2 * amplitude))


def shadow_on(image, box, blur, strength):
    """Adds a soft shadow in the rectangle `box`, in pixels."""
    mask = Image.new("L", image.size, 0)
    ImageDraw.Draw(mask).rectangle(box, fill=strength)
    return Image.composite(Image.new("RGB", image.size, (20, 18, 16)), image,
                           mask.filter(ImageFilter.GaussianBlur(blur)))


def few_levels(image, step):
    """Rounds all channels to multiples of `step`, which makes a PNG file with noise smaller."""
    return image.point([min(255, (v + step // 2) // step * step) for v in range(256)]
                       * len(image.getbands()))


def sign(font):
    """Draws a painted shop sign with opening hours and notices."""
    rng = random.Random(11)
    cream, gold, red = (246, 236, 208), (222, 178, 92), (240, 150, 120)
    page = Page(900, 680, (28, 72, 58), font)
    page.draw.rectangle((22, 22, 877, 657), outline=gold, width=5)
    page.draw.rectangle((34, 34, 865, 645), outline=gold, width=1)
    page.write(450, 100, "麦香小屋面包坊", 78, cream, "mm")
    page.write(450, 182, "WHEAT CORNER BAKERY", 44, gold, "mm")
    page.draw.line((130, 228, 770, 228), fill=gold, width=2)
    page.write(450, 274, "营业时间：08:30-21:00", 42, cream, "mm")
    page.write(450, 340, "每日清晨现烤，当天售完为止", 38, cream, "mm")
    page.write(450, 402, "Fresh bread every morning", 36, cream, "mm")
    page.draw.line((130, 446, 770, 446), fill=gold, width=2)
    page.write(450, 490, "店内禁止吸烟，请勿携带宠物", 34, red, "mm")
    page.write(450, 546, "Please wait here to be seated", 32, cream, "mm")
    page.write(450, 602, "订购电话：020-5550-0147", 34, cream, "mm")
    image = uneven_light(page.image, rng, 14).filter(ImageFilter.GaussianBlur(0.6))
    return few_levels(grain(image, rng, 1.5), 12), page.lines


def receipt(font):
    """Draws a till receipt on a grey table: names on the left, prices on the right."""
    rng = random.Random(23)
    ink, pale = (44, 44, 52), (96, 96, 104)
    page = Page(600, 940, (249, 247, 242), font)
    left, right = 46, 554
    page.write(300, 62, "青橙生活超市", 46, ink, "mm")
    page.write(300, 116, "GREEN ORANGE MART", 30, ink, "mm")
    page.write(left, 176, "门店：河滨路二店", 26, ink)
    page.write(left, 218, "日期：2025-03-18 19:42", 26, ink)
    page.write(left, 260, "单号：A20250318-0067", 26, ink)

    def rule(y):
        for x in range(left, right, 14):
            page.draw.line((x, y, x + 7, y), fill=pale, width=2)

    def entry(y, name, price, size=28):
        page.write(left, y, name, size, ink)
        page.write(right, y, price, size, ink, "rm")

    rule(294)
    goods = [("纯牛奶 250ml", "19.80"), ("全麦吐司面包", "12.50"), ("Orange Juice 1L", "15.90"),
             ("红富士苹果 1.36kg", "13.46"), ("Dark Chocolate", "22.00"), ("鲜鸡蛋 10枚", "16.80")]
    for row, (name, price) in enumerate(goods):
        entry(332 + 46 * row, name, price)
    rule(600)
    entry(640, "合计", "100.46")
    entry(686, "会员优惠", "-5.46")
    entry(738, "应付金额", "95.00", 36)
    rule(776)
    page.write(left, 814, "Card No. **** 3382", 26, ink)
    page.write(300, 862, "谢谢惠顾，欢迎再次光临", 28, ink, "mm")
    page.write(300, 904, "Thank you!", 26, ink, "mm")

    paper = uneven_light(page.image, rng, 12, (3, 6))
    table = uneven_light(Image.new("RGB", (720, 1040), (126, 128, 132)), rng, 16)
    table = shadow_on(table, (72, 66, 672, 1006), 14, 150)
    table.paste(paper, (58, 48))
    image = grain(table.filter(ImageFilter.GaussianBlur(0.6)), rng, 2)
    return few_levels(image.convert("L"), 10), page.lines


def hike(font):
    """Draws a page on a wooden desk, photographed rotated and under a lamp."""
    rng = random.Random(37)
    ink, blue = (48, 46, 58), (38, 64, 128)
    page = Page(860, 900, (250, 246, 232), font)
    for y in range(66, 900, 92):
        page.draw.line((0, y + 40, 860, y + 40), fill=(222, 218, 210), width=2)
    page.draw.line((70, 0, 70, 900), fill=(236, 190, 184), width=2)
    lines = [("周末徒步通知", 54, blue), ("Weekend Hike", 46, blue), ("集合地点：东门广场", 42, ink),
             ("时间：周六早上七点半", 42, ink), ("路线全长12公里", 42, ink),
             ("Bring water and a hat", 40, ink), ("请穿防滑的鞋子", 42, ink),
             ("带队：林老师 5550163", 40, ink), ("Back by 17:30", 42, ink)]
    for row, (text, size, colour) in enumerate(lines):
        page.write(104, 66 + 92 * row, text, size, colour)

    width, height = 1200, 1100
    # Noise in cells much wider than high looks like wood grain.
    wood = around_zero(noise((5, 260), rng).resize((width, height), Image.Resampling.BICUBIC), 26)
    desk = add_field(Image.new("RGB", (width, height), (142, 98, 62)), wood)
    sheet = uneven_light(page.image, rng, 10).convert("RGBA")
    sheet = sheet.rotate(4.5, Image.Resampling.BICUBIC, expand=True)
    corner = ((width - sheet.width) // 2, (height - sheet.height) // 2)
    shadow = Image.new("L", (width, height), 0)
    outline = sheet.getchannel("A").point(lambda v: v * 5 // 9)
    shadow.paste(outline, (corner[0] + 16, corner[1] + 18))
    shadow = shadow.filter(ImageFilter.GaussianBlur(14))
    desk = Image.composite(Image.new("RGB", desk.size, (24, 16, 10)), desk, shadow)
    desk.paste(sheet.convert("RGB"), corner, sheet.getchannel("A"))
    # The lamp is at the top left; the opposite corner gets a little more than half of its light.
    lamp = ImageChops.invert(Image.radial_gradient("L")).resize((2 * width, 2 * height))
    lamp = lamp.crop((width - 350, height - 300, 2 * width - 350, 2 * height - 300))
    lamp = lamp.point(lambda v: min(255, 110 + v * 3 // 4))
    desk = ImageChops.multiply(desk, Image.merge("RGB", [lamp] * 3))
    desk = uneven_light(desk, rng, 12, (5, 5)).filter(ImageFilter.GaussianBlur(0.9))
    return grain(desk, rng, 4, 0.9), page.lines


def newsletter(font):
    """Draws a printed page with two dense columns, Chinese and English."""
    rng = random.Random(53)
    ink = (40, 40, 40)
    page = Page(960, 1280, (240, 240, 240), font)
    page.write(480, 62, "河滨小区邻里月报", 52, (120, 36, 30), "mm")
    page.write(480, 116, "Riverside Monthly, Issue 27", 30, ink, "mm")
    page.draw.line((50, 148, 910, 148), fill=(120, 36, 30), width=3)
    page.draw.line((480, 168, 480, 1240), fill=(190, 184, 172), width=1)
    chinese = ["本月要闻", "南门花园已经重新开放，", "新种的桂花树共六十棵。", "路灯全部换成节能灯泡，",
               "预计每年省电三成以上。", "图书角周二至周日开放，", "每人一次可借四本书，", "借期为二十一天。",
               "停车提示", "三号楼前施工到月底，", "请把车停到北侧车场。", "充电桩增加到18个，",
               "收费为每度0.86元。", "健康讲座", "本月9日下午两点半，", "请李医生讲睡眠与饮食，",
               "地点在活动中心二楼。", "名额50人，先到先得。", "邻里互助", "谁家有闲置的儿童车，",
               "请联系五号楼王阿姨。", "物业电话：5550128"]
    english = ["Garden news", "The south garden is open", "again with sixty new trees.",
               "Please keep dogs on a lead", "and off the flower beds.", "Library corner",
               "Four books per visit, to be", "returned within 21 days.", "We need two volunteers",
               "for the Saturday shift.", "Parking", "Building 3 is closed to cars",
               "until the end of the month.", "Use the north lot instead.",
               "Power costs 0.86 per unit.", "Summer market", "Date: 2025-07-12",
               "From 9:00 to 16:30", "Stalls cost 15.00 a day.", "Bring your own table.",
               "Lost and found", "A grey umbrella, gate No. 2"]
    headings = {"本月要闻", "停车提示", "健康讲座", "邻里互助", "Garden news", "Library corner", "Parking",
                "Summer market", "Lost and found"}
    for x, column in ((62, chinese), (508, english)):
        for row, text in enumerate(column):
            colour = (120, 36, 30) if text in headings else ink
            page.write(x, 190 + 49 * row, text, 30, colour)
    image = uneven_light(page.image, rng, 9, (4, 5))
    # The fold of the sheet, a vertical shadow at the left edge.
    image = shadow_on(image, (-40, -40, 8, 1320), 20, 110).filter(ImageFilter.GaussianBlur(0.5))
    return few_levels(grain(image, rng, 1.5), 12), page.lines


# The photograph is a JPEG: because of its noise, a PNG would be large.
IMAGES = {"sign.png": sign, "receipt.png": receipt, "hike.jpg": hike, "newsletter.png": newsletter}


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("--font", default=DEFAULT_FONT, help="font file (default: %(default)s)")
    parser.add_argument("--output", type=pathlib.Path, default=pathlib.Path(__file__).parent,
                        help="output folder (default: the folder of this script)")
    arguments = parser.parse_args()
    if not pathlib.Path(arguments.font).is_file():
        sys.exit(f"{arguments.font}: no such font file; choose one with --font")
    arguments.output.mkdir(parents=True, exist_ok=True)
    for name, draw in IMAGES.items():
        image, lines = draw(arguments.font)
        path = arguments.output / name
        image.save(path, **({"quality": 90} if path.suffix == ".jpg" else {"optimize": True}))
        path.with_suffix(".txt").write_text("\n".join(lines) + "\n", encoding="utf-8")
        print(f"{name}: {image.width} x {image.height}, {len(lines)} lines, "
              f"{path.stat().st_size / 1000:.0f} kB")


if __name__ == "__main__":
    main()
