#pragma once

#include "model/ApplicationManagerModel.h"
#include "model/ApplicationManagerModelHolderImpl.h"
#include "model/ModelUpdateReason.h"

#include <QObject>
#include <QString>
#include <functional>

class ApplicationFilter;
class ApplicationManagerModelBuilder;
class LocalApplications;
class ProjectsManager;
class RemoteApplications;
class WorkerThread;

// Publishes the model: rebuilds it on the one model worker thread from the
// registry, the feed store and the projects, stores it and announces it.
// getModel() may be called from any thread. LocalApplications,
// RemoteApplications, ProjectsManager and the filter may be null (nothing of
// that source).
class ApplicationManagerModelHolderFacade : public QObject
{
    Q_OBJECT
public:
    ApplicationManagerModelHolderFacade(ApplicationManagerModelBuilder *builder,
        LocalApplications *localApplications, RemoteApplications *remoteApplications,
        ProjectsManager *projectsManager, const ApplicationFilter *filter, QObject *parent = nullptr);
    ~ApplicationManagerModelHolderFacade() override;

    ApplicationManagerModel getModel() const;
    // Rebuilds, stores and announces the model, and returns it. Belongs on the
    // model worker (see worker()); elsewhere it is logged at critical level and
    // done all the same.
    ApplicationManagerModel updateModel(ModelUpdateReason reason);
    // updateModel on the model worker; `done` (optional) gets the new model on `context`'s thread.
    void updateModelAsync(ModelUpdateReason reason, QObject *context = nullptr,
        std::function<void(ApplicationManagerModel)> done = {});
    // updateModel on the model worker, waiting for it on the calling thread (a worker, never the main thread).
    ApplicationManagerModel updateModelAndWait(ModelUpdateReason reason);

    WorkerThread *worker() const { return m_worker; }
    static QString reasonString(ModelUpdateReason reason);

signals:
    // A new model was stored. Emitted on the model worker.
    void onModelUpdated(ModelUpdateReason reason);

private:
    ApplicationManagerModelBuilder *m_builder;
    LocalApplications *m_localApplications;
    RemoteApplications *m_remoteApplications;
    ProjectsManager *m_projectsManager;
    const ApplicationFilter *m_filter;
    ApplicationManagerModelHolderImpl m_holder;
    WorkerThread *m_worker;
};
