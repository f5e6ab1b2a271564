// Edits: modifying and storing them, references, the timeline under a cursor,
// modifications and their listeners; and the project space.
#include "ProjectFixture.h"

#include "host/project/EditInfo.h"
#include "host/project/EditModifier.h"
#include "host/project/EditModule.h"
#include "host/project/ProjectSpacesManager.h"

using namespace project_test;

using ProjectEdits = ProjectTest;

TEST_F(ProjectEdits, ChangesNeedAModifierAndAreStoredWholeWhenTheLastOneEnds) {
    EditPtr made = EditManager::createEdit(W("first"), Edit::eLogSequence);
    ASSERT_TRUE(made);
    Cookie cookie = made->getCookie();
    EXPECT_FALSE(made->setName(W("no modifier")));
    {
        EditModifier outer(made);
        ASSERT_TRUE(outer.ok());
        {
            EditModifier inner(made);
            EXPECT_TRUE(made->setName(W("second")));
            configb options;
            options.set("deinterlace", int64_t(1));
            EXPECT_TRUE(made->setDecodeOptions(options));
            EXPECT_TRUE(made->setAudioInputSampleRate(44100));
            EXPECT_TRUE(inner.commit());
        }
        EXPECT_EQ(EditInfo(cookie).getName(), W("first")); // the outer modifier is still open
    }
    EditInfo info(cookie);
    EXPECT_TRUE(info.exists());
    EXPECT_EQ(U(info.getName()), "second");
    EXPECT_EQ(info.getLogType(), Edit::eLogSequence);
    EXPECT_FALSE(EditInfo(Cookie('E', 3, 3)).exists());

    EditPtr again;
    ASSERT_TRUE(again.i_open(convertCookie(cookie, 'V', 0))); // any type letter opens the edit
    EXPECT_EQ(again->getDecodeOptions().getInt("deinterlace"), 1);
    EXPECT_EQ(again->getAudioInputSampleRate(), 44100u);

    EditPtr readOnly;
    ASSERT_TRUE(readOnly.i_open(cookie, eEditOpenReadOnly));
    EditModifier refused(readOnly);
    EXPECT_FALSE(refused.ok());
    EXPECT_FALSE(readOnly->setName(W("x")));
    EXPECT_FALSE(readOnly->addModification(EditModification(eEditModMediaChanged, 1), true));
    EXPECT_FALSE(again.i_open(Cookie('E', 3, 3)));
    EXPECT_FALSE(again);
}

TEST_F(ProjectEdits, TheTimelineAnswersWhatIsUnderTheCursor) {
    Cookie material('V', 500, 600, 0), other('S', 500, 601, 1);
    EditPtr seq = EditManager::createEdit(W("sequence"), Edit::eLogSequence);
    int v1 = 0, a1 = 0;
    {
        EditModifier m(seq);
        v1 = seq->addChannel(Edit::eVideo);
        a1 = seq->addChannel(Edit::eAudio);
        EXPECT_TRUE(seq->addSegment(v1, 0.0, 2.0, material));
        EXPECT_TRUE(seq->addFiller(v1, 2.0, 3.0));
        EXPECT_TRUE(seq->addEffect(v1, 3.0, 4.0, W("dissolve")));
        EXPECT_FALSE(seq->addSegment(v1, 1.5, 2.5, material)); // overlaps
        EXPECT_FALSE(seq->addSegment(9, 0.0, 1.0, material));  // no such channel
        EXPECT_FALSE(seq->addSegment(a1, 1.0, 1.0, other));    // empty
        EXPECT_TRUE(seq->addSegment(a1, 0.0, 4.0, other));
    }
    EditPtr e;
    ASSERT_TRUE(e.i_open(seq->getCookie()));
    EXPECT_FALSE(e->isEmpty(1));
    EXPECT_EQ(e->getReferences(2), (CookieVec{material, other}));
    EXPECT_EQ(e->getReferences(3), (CookieVec{Cookie('E', 500, 600), Cookie('E', 500, 601)}));
    ASSERT_EQ(e->getReferences(4).size(), 3u);
    EXPECT_EQ(e->getReferences(4)[1].id2(), Cookie::kFillerWord);

    EditModule module(e);
    module.selectChan(a1);
    Vector<int> chans;
    EXPECT_EQ(module.getSelectedChans(chans, 1, 15), 0u);
    module.selectChan(v1);
    ASSERT_EQ(module.getSelectedChans(chans, 1, 15), 1u);
    EXPECT_EQ(chans[0], v1);
    module.setCurrentTime(1.99);

    auto at = [&](double t) { return EditGraphIterator(e, chans[0], t, 2); };
    auto cel = at(module.getCurrentTime(1)).getUTRHandle(-1);
    ASSERT_TRUE(cel);
    EXPECT_EQ(cel->stripCookie(), material);
    EXPECT_FALSE(dynamic_cast<EffectInstance*>(at(1.0).getNode(-1).get()));
    auto filler = at(2.0).getUTRHandle();
    ASSERT_TRUE(filler);
    EXPECT_TRUE(filler->isFiller());
    auto effect = at(3.5).getNode(-1);
    ASSERT_TRUE(dynamic_cast<EffectInstance*>(effect.get()));
    EXPECT_EQ(U(static_cast<EffectInstance*>(effect.get())->getName()), "dissolve");
    EXPECT_FALSE(at(3.5).getUTRHandle());
    EXPECT_FALSE(at(4.0).getNode());
    EXPECT_FALSE(at(-0.1).valid());

    EditPtr empty = EditManager::createEdit(W("empty"), Edit::eLogSequence);
    EXPECT_TRUE(empty->isEmpty(1));
}

TEST_F(ProjectEdits, ModificationsAreStoredInOrderAndHeardAfterTheCommit) {
    EditPtr clip = EditManager::createEdit(W("clip"), Edit::eLogClip, Edit::eImported);
    std::vector<std::pair<Cookie, unsigned>> heard;
    int token = EditManager::addModificationListener([&](const Cookie& c, const EditModification& m) {
        // Heard after the commit: a fresh read already sees the modification.
        EditPtr fresh;
        fresh.i_open(c);
        heard.push_back({c, fresh->getModifications().size()});
    });
    EXPECT_TRUE(clip->addModification(EditModification(EditModificationType(7), 2), false));
    {
        EditModifier m(clip);
        EXPECT_TRUE(clip->addModification(EditModification(eEditModMediaChanged, 1), true));
        EXPECT_TRUE(heard.empty());
    }
    EditManager::removeModificationListener(token);
    EXPECT_TRUE(clip->addModification(EditModification(eEditModMediaChanged, 1), true));
    ASSERT_EQ(heard.size(), 1u);
    EXPECT_EQ(heard[0].first, clip->getCookie());
    EXPECT_EQ(heard[0].second, 2u);
    const EditModification media(eEditModMediaChanged, 1);
    EXPECT_EQ(clip->getModifications(), (Vector<EditModification>{{EditModificationType(7), 2}, media, media}));

    // updateProjdbRec writes the present state without a modifier's commit.
    {
        EditModifier m(clip);
        clip->setFlag(Edit::eImage, true);
        EXPECT_TRUE(EditManager::updateProjdbRec(*clip));
        EXPECT_TRUE(EditInfo(clip->getCookie()).getFlags() & Edit::eImage);
    }
}

TEST_F(ProjectEdits, TheRemoteResourceExistsOnlyInARemoteProjectSpace) {
    Cookie log('E', 40, 41);
    EXPECT_EQ(ProjectSpacesManager::getCurrentProjectSpaceType(), 0);
    EXPECT_FALSE(ProjectSpacesManager::getResourceForRemoteProjectSpace());
    ASSERT_TRUE(ProjectSpacesManager::addMountPoint({W("/mnt/server"), W("")}));
    ASSERT_TRUE(ProjectSpacesManager::addMountPoint({W(""), W("/net/alt")}));
    ASSERT_TRUE(ProjectSpacesManager::addServerMediaEntry(log, {Cookie('V', 40, 41, 0), W("/srv/a.mov")}));
    ASSERT_TRUE(ProjectSpacesManager::setServerProxies(log, true));
    ASSERT_TRUE(ProjectSpacesManager::setCurrentProjectSpaceType(2));
    reopen();
    auto res = ProjectSpacesManager::getResourceForRemoteProjectSpace(W("any"));
    ASSERT_TRUE(res);
    auto mounts = res->getMountPoints();
    ASSERT_EQ(mounts.size(), 2u);
    EXPECT_EQ(U(mounts[0].localPath()), "/mnt/server");
    EXPECT_EQ(U(mounts[1].localPath()), "/net/alt");
    ASSERT_EQ(res->getServerMediaEntries(log).size(), 1u);
    EXPECT_EQ(res->getServerMediaEntries(log)[0].material, Cookie('V', 40, 41, 0));
    EXPECT_TRUE(res->getServerMediaEntries(Cookie('E', 1, 2)).empty());
    EXPECT_TRUE(res->hasServerProxies(log));
    EXPECT_FALSE(res->hasServerProxies(Cookie('E', 1, 2)));
    {
        ScopedProjectSpaceResource none(nullptr); // the service failing
        EXPECT_FALSE(ProjectSpacesManager::getResourceForRemoteProjectSpace());
    }
    EXPECT_EQ(ProjectSpacesManager::getResourceForRemoteProjectSpace()->getMountPoints().size(), 2u);
    EXPECT_TRUE(ProjectSpacesManager::clearRemoteResource());
    EXPECT_TRUE(res->getMountPoints().empty());
    EditManager::closeProject();
    EXPECT_FALSE(ProjectSpacesManager::getResourceForRemoteProjectSpace());
}
